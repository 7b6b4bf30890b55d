// pelorin-vpn: the application's entry point. With a display it runs the windowed interface;
// with --headless (or a console mode: --list, --connect, --script, --help) or without a
// display it runs on the console with the same controller and engine.
#include "SignalWatcher.h"
#include "platform/Platform.h"
#include "shell/HeadlessRunner.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QLibrary>
#include <QSocketNotifier>
#include <QTextStream>

#include <cstdio>
#include <unistd.h>

namespace {
bool displayAvailable()
{
    const QString platform = qEnvironmentVariable("QT_QPA_PLATFORM");
    if (platform.startsWith(QLatin1String("offscreen")) || platform.startsWith(QLatin1String("minimal")))
        return false;
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

// Any console mode or help wins over the window; the controller's own switches do not.
bool consoleRequested(int argc, char *argv[])
{
    for (int i = 1; i < argc; ++i) {
        const QByteArray arg(argv[i]);
        for (const char *option :
             {"--headless", "--list", "--connect", "--script", "--on-connected", "--help", "-h", "--help-all", "-?"}) {
            if (arg == option || arg.startsWith(QByteArray(option) + '='))
                return true;
        }
    }
    return false;
}

using GuiMain = int (*)(int, char **);

// The windowed interface's entry point, or null with the reason in `why`.
GuiMain loadGui(QString *why)
{
    QLibrary module(Platform::instance().helperPath(QStringLiteral("pelorin-gui")));
    auto entry = reinterpret_cast<GuiMain>(module.resolve("pelorin_gui_main"));
    if (!entry)
        *why = module.errorString();
    return entry;
}
} // namespace

int main(int argc, char *argv[])
{
    if (!consoleRequested(argc, argv) && displayAvailable()) {
        QString why;
        if (const GuiMain gui = loadGui(&why))
            return gui(argc, argv);
        std::fprintf(stderr, "The window cannot be opened (%s); running on the console.\n", qPrintable(why));
    }

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("PelorinVPN"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("PelorinVPN client"));
    parser.addHelpOption();
    const QCommandLineOption headless(QStringLiteral("headless"), QStringLiteral("Run without a window."));
    const QCommandLineOption list(QStringLiteral("list"), QStringLiteral("Print the server clusters and exit."));
    const QCommandLineOption connect(QStringLiteral("connect"),
                                     QStringLiteral("Connect to the cluster with this name or ISO code."),
                                     QStringLiteral("NAME|ISO"));
    const QCommandLineOption script(QStringLiteral("script"),
                                    QStringLiteral("Connect to the default cluster, run the --on-connected check, "
                                                   "disconnect; exit 0 only if all of that worked."));
    const QCommandLineOption onConnected(QStringLiteral("on-connected"),
                                         QStringLiteral("Shell command run once connected (with --script)."),
                                         QStringLiteral("CMD"));
    parser.addOptions({headless, list, connect, script, onConnected});
    // The controller's own switches (CLEAR_USERDEFAULTS, CLEAR_VPN, FIRST_RUN, ...) and the
    // autostart entry's argument pass through untouched.
    QStringList known = app.arguments();
    known.removeAll(QStringLiteral("--login-item"));
    parser.process(known);

    QTextStream out(stdout);
    HeadlessRunner::Options options;
    options.arguments = app.arguments();
    if (parser.isSet(script)) {
        options.mode = HeadlessRunner::Mode::Script;
        options.onConnectedCommand = parser.value(onConnected);
        if (options.onConnectedCommand.isEmpty()) {
            std::fprintf(stderr, "--script needs --on-connected CMD: the check that traffic flows\n");
            return 3;
        }
    } else if (parser.isSet(list)) {
        options.mode = HeadlessRunner::Mode::List;
    } else if (parser.isSet(connect)) {
        options.mode = HeadlessRunner::Mode::Connect;
        options.target = parser.value(connect);
    }
    HeadlessRunner runner(options, out);
    SignalWatcher watcher;
    QObject::connect(&watcher, &SignalWatcher::terminationRequested, &app, [&runner, &out](int number) {
        out << "Signal " << number << ": disconnecting" << Qt::endl;
        runner.command(QStringLiteral("quit"));
    });
    // Commands on standard input: status, disconnect, quit. The end of input is not a command
    // (scripts often run us with no input at all).
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char buffer[256];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            input.setEnabled(false);
            return;
        }
        pending.append(buffer, n);
        qsizetype end;
        while ((end = pending.indexOf('\n')) >= 0) {
            runner.command(QString::fromUtf8(pending.left(end)));
            pending.remove(0, end + 1);
        }
    });

    runner.start();
    const int status = app.exec();
    return status != 0 ? status : runner.exitCode();
}
