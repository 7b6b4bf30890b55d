#include "GuiApp.h"

#include "GuiSession.h"
#include "SingleInstance.h"

#include <QApplication>
#include <QDir>
#include <QTimer>
#include <QWidget>

#include <cstdio>

namespace {

void startScreenshots(QApplication &app)
{
    const QString dir = qEnvironmentVariable(GuiApp::kScreenshotDirVariable);
    if (dir.isEmpty() || !QDir().mkpath(dir))
        return;
    auto *timer = new QTimer(&app);
    QObject::connect(timer, &QTimer::timeout, &app, [timer, dir, taken = 0]() mutable {
        if (++taken > GuiApp::kMaxScreenshots) {
            timer->stop();
            return;
        }
        for (QWidget *window : QApplication::topLevelWidgets()) {
            if (!window->isVisible())
                continue;
            const QString path = QStringLiteral("%1/shot-%2-%3.png")
                                     .arg(dir)
                                     .arg(taken, 2, 10, QLatin1Char('0'))
                                     .arg(QString::fromLatin1(window->metaObject()->className()));
            window->grab().save(path);
        }
    });
    timer->start(GuiApp::kScreenshotIntervalMs);
}

} // namespace

int GuiApp::run(QApplication &app, SingleInstance &instance)
{
    // The tray icon keeps the program alive while the main window is dropped or closed.
    QApplication::setQuitOnLastWindowClosed(false);

    if (!instance.listen())
        std::fprintf(stderr, "PelorinVPN cannot listen on %s: a second launch will not find this one.\n",
                     qPrintable(instance.socketPath()));

    GuiSession session(app.arguments());
    QObject::connect(&instance, &SingleInstance::showRequested, &app, [&session] { session.showRequested(); });
    startScreenshots(app);
    session.start();
    return app.exec();
}
