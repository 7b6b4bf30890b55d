// The floor the benchmarks compare pelorin-vpn with: a Qt Widgets program that shows one
// plain 522 x 319 window (the size of the main window) and idles, or with --core a console
// Qt event loop that idles. Prints "ready" once its event loop runs. `--tick MS` adds a
// repeating timer that repaints the window: a known load that checks the wake-up counter.
#include <QApplication>
#include <QCoreApplication>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv)
{
    const bool core = argc > 1 && std::strcmp(argv[1], "--core") == 0;
    const int tickMs = argc > 2 && std::strcmp(argv[1], "--tick") == 0 ? std::atoi(argv[2]) : 0;
    auto ready = [] {
        std::printf("ready\n");
        std::fflush(stdout);
    };
    if (core) {
        QCoreApplication app(argc, argv);
        QTimer::singleShot(0, &app, ready);
        return app.exec();
    }
    QApplication app(argc, argv);
    QWidget window;
    window.resize(522, 319);
    window.show();
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, &window, [&window] { window.update(); });
    if (tickMs > 0)
        tick.start(tickMs);
    QTimer::singleShot(0, &app, ready);
    return app.exec();
}
