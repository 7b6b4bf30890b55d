// pelorin-vpn: the application's entry point. With a display it runs the windowed interface;
// with --headless (or a console mode: --list, --connect, --script, --help, --version) or
// without a display it runs on the console with the same controller and engine.
#include "SignalWatcher.h"
#include "platform/Platform.h"
#include "shell/AppUpdateManager.h"
#include "shell/HeadlessRunner.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
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

const char *const kHelpText = R"(PelorinVPN client.

Without a display, or with --headless or a console option, it runs on the console.

Commands on standard input (console):
  status      print the tunnel state ("State: 3 connected")
  disconnect  end the tunnel and keep running
  quit        disconnect if needed and end (so do Ctrl-C and SIGTERM)

Switches (plain words, not options):
  CLEAR_USERDEFAULTS  start as on the first run: the settings are reset
  CLEAR_VPN           forget the stored VPN account; a new one is requested

Exit codes (console):
  0  the asked job was done (--list printed, --connect connected, --script's check passed,
     or the program ran until quit)
  1  another failure
  2  usage: unknown option, missing argument, no such cluster
  3  the backend cannot be reached (server list, VPN account, profile)
  4  could not connect: refused, not allowed to run the tunnel helper, no tunnel within
     60 seconds, or the tunnel went down
  5  --script: the --on-connected check failed
  6  interrupted: a signal, "quit" or an update ended the run before the job was done)";

struct Cli {
    QCommandLineOption headless{QStringLiteral("headless"), QStringLiteral("Run without a window.")};
    QCommandLineOption list{QStringLiteral("list"), QStringLiteral("Print the server clusters and exit.")};
    QCommandLineOption connect{QStringLiteral("connect"),
                               QStringLiteral("Connect to the cluster with this name or ISO code and stay."),
                               QStringLiteral("NAME|ISO")};
    QCommandLineOption script{QStringLiteral("script"),
                              QStringLiteral("Connect to the default cluster, run the --on-connected check, "
                                             "disconnect; exit 0 only if all of that worked.")};
    QCommandLineOption onConnected{QStringLiteral("on-connected"),
                                   QStringLiteral("Shell command run once connected (with --script)."),
                                   QStringLiteral("CMD")};
    QCommandLineOption loginItem{QStringLiteral("login-item")}; // the autostart entry's argument
    QCommandLineParser parser;

    Cli()
    {
        loginItem.setFlags(QCommandLineOption::HiddenFromHelp);
        parser.setApplicationDescription(QLatin1String(kHelpText));
        parser.addHelpOption();
        parser.addVersionOption();
        parser.addOptions({headless, list, connect, script, onConnected, loginItem});
        // The controller's own switches (CLEAR_USERDEFAULTS, CLEAR_VPN, FIRST_RUN, ...).
        parser.addPositionalArgument(QStringLiteral("SWITCH"), QStringLiteral("CLEAR_USERDEFAULTS or CLEAR_VPN."),
                                     QStringLiteral("[SWITCH...]"));
    }

    bool consoleRequested() const
    {
        for (const auto *option : {&headless, &list, &connect, &script, &onConnected})
            if (parser.isSet(*option))
                return true;
        return parser.isSet(QStringLiteral("help")) || parser.isSet(QStringLiteral("version"));
    }
};

QStringList argumentsOf(int argc, char *argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    return arguments;
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
    // Options are checked the same way whether a window or the console follows.
    Cli cli;
    if (!cli.parser.parse(argumentsOf(argc, argv))) {
        std::fprintf(stderr, "pelorin-vpn: %s\nSee pelorin-vpn --help.\n", qPrintable(cli.parser.errorText()));
        return HeadlessRunner::kExitUsage;
    }
    if (!cli.consoleRequested() && displayAvailable()) {
        QString why;
        if (const GuiMain gui = loadGui(&why))
            return gui(argc, argv);
        std::fprintf(stderr, "The window cannot be opened (%s); running on the console.\n", qPrintable(why));
    }

    // Messages for people keep going to the terminal or pipe we were started with, also after
    // the controller has moved the log (standard error) to its file.
    QFile errFile;
    errFile.open(::dup(STDERR_FILENO), QIODevice::WriteOnly, QFileDevice::AutoCloseHandle);
    QTextStream err(&errFile);

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("PelorinVPN"));
    // With the build number: the version the update check compares ("2.1.0.45").
    QCoreApplication::setApplicationVersion(AppUpdateManager::ownVersion());
    cli.parser.process(app); // --help, --version

    QTextStream out(stdout);
    HeadlessRunner::Options options;
    options.arguments = app.arguments();
    if (cli.parser.isSet(cli.script)) {
        options.mode = HeadlessRunner::Mode::Script;
        options.onConnectedCommand = cli.parser.value(cli.onConnected);
        if (options.onConnectedCommand.isEmpty()) {
            err << "--script needs --on-connected CMD: the check that traffic flows" << Qt::endl;
            return HeadlessRunner::kExitUsage;
        }
    } else if (cli.parser.isSet(cli.list)) {
        options.mode = HeadlessRunner::Mode::List;
    } else if (cli.parser.isSet(cli.connect)) {
        options.mode = HeadlessRunner::Mode::Connect;
        options.target = cli.parser.value(cli.connect);
    }
    HeadlessRunner runner(options, out, err);
    SignalWatcher watcher;
    QObject::connect(&watcher, &SignalWatcher::terminationRequested, &app,
                     [&runner](int number) { runner.interrupt(number); });
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
