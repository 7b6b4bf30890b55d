// The console client: its modes and exit codes against the development backend on loopback,
// with stand-in sudo and tunnel client programs. The start-up delays and the connect limit run
// on the test clock; options, --version and --list run the real program.
#include "backend/DevBackendProcess.h"
#include "foundation/MainQueue.h"
#include "shell/AppUpdateManager.h"
#include "shell/HeadlessRunner.h"
#include "shell/NQApplication.h"
#include "vpn/support/VpnTestEnvironment.h"

#include <QtTest>

namespace {
constexpr int kWaitMs = 20000;
// Test-clock time moved per poll: start-up delays of a few seconds pass in a few polls.
constexpr int kClockStepMs = 1000;
using Mode = HeadlessRunner::Mode;
// Each row runs the console client to its end; `steps` (separated by '|') are done while it
// runs: "wait TEXT" moves the clock until TEXT is out, "tick" moves it 5 s, "signal" and
// "end" interrupt it, "ends with TEXT" checks standard output, anything else is a command.
struct Run {
    const char *name;
    const char *argument; // the cluster, or the check
    Mode mode;
    const char *setup; // what is made to go wrong, or "auto:" and the last cluster
    const char *steps;
    int code;
    const char *said; // on standard error, or standard output for results; after "!", on neither
};
constexpr Run kRuns[] = {
    {"script passes", "true", Mode::Script, "", "", 0, "Traffic check passed"},
    {"script check fails", "false", Mode::Script, "", "", 5, "Traffic check FAILED"},
    {"list, no backend", "", Mode::List, "no backend", "", 3, "Cannot load the server list"},
    {"no such cluster", "Atlantis", Mode::Connect, "", "", 2, "No cluster named 'Atlantis'"},
    {"backend unreachable", "DE", Mode::Connect, "no backend", "", 3, "giving up"},
    {"sudo refuses", "DE", Mode::Connect, "sudo-refuses", "", 4, "log out and in again"},
    {"no tunnel in time", "DE", Mode::Connect, "silent client", "", 4, "No tunnel after 60 seconds"},
    {"tunnel refused", "DE", Mode::Connect, "auth failed", "", 4, "The server refused the VPN credentials"},
    // A disconnect leaves the console running: later time and commands are still served.
    {"disconnect, then quit", "DE", Mode::Connect, "",
     "wait Connected to|status|ends with State: 3 connected|disconnect|wait State: 1 disconnected|tick|quit", 0,
     "Disconnecting"},
    // A signal, or the application ended by someone else (an update being installed).
    {"signal", "DE", Mode::Connect, "silent client", "wait State: 2|signal", 6, "Signal 15"},
    {"application ended", "DE", Mode::Connect, "silent client", "wait State: 2|end", 6, ""},
    // Without a cluster named, "Connect automatically" connects to the last cluster (by
    // name), else to the default one; switched off, the console only starts up.
    {"idle", "", Mode::Idle, "", "wait Ready.|tick|quit", 0, "!Connecting"},
    {"automatic, last cluster", "", Mode::Idle, "auto:Canada", "wait Connected to|quit", 0, "Connected to Canada\n"},
    {"automatic, last cluster gone", "", Mode::Idle, "auto:Atlantis", "wait Connected to|quit", 0,
     "Connected to United States\n"},
};
} // namespace

class TestHeadless : public QObject {
    Q_OBJECT

    DevBackendProcess m_backend;
    std::unique_ptr<VpnTestEnvironment> m_env;
    std::unique_ptr<TestClock> m_clock;
    QString m_out;
    QString m_err;

    void makeEnvironment(const QString &backendUrl)
    {
        m_env = std::make_unique<VpnTestEnvironment>(backendUrl);
        m_env->writeFile(QStringLiteral("sudo"), VpnTestEnvironment::kStandInSudo, true);
        useClient(VpnTestEnvironment::kConnectThenWait);
    }
    void useClient(const QByteArray &behaviour)
    {
        m_env->writeFile(QStringLiteral("helpers/ovpncli"), VpnTestEnvironment::kStandInClient, true);
        m_env->writeFile(QStringLiteral("helpers/behaviour"), behaviour);
    }
    // Moves the clock until `condition` holds (replies and the client's output come in real time).
    bool clockUntil(const std::function<bool()> &condition)
    {
        return QTest::qWaitFor(
            [&] {
                m_clock->advance(kClockStepMs);
                return condition();
            },
            kWaitMs);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_backend.start());
        // The reachability check asks the built-in backend address.
        qputenv("PELORIN_BACKEND_URL", m_backend.baseUrl().toUtf8());
        qputenv("PELORIN_EXTENSION_PORT", "0");
    }
    void init()
    {
        makeEnvironment(m_backend.baseUrl());
        qputenv("PELORIN_AUTOSTART_DIR", QFile::encodeName(m_env->root() + QStringLiteral("/autostart")));
        m_clock = std::make_unique<TestClock>();
        MainQueue::setTestClock(m_clock.get());
        m_out.clear();
        m_err.clear();
    }
    void cleanup()
    {
        MainQueue::setTestClock(nullptr);
        m_clock.reset();
        m_env.reset();
    }

    void exitCodes_data()
    {
        QTest::addColumn<int>("row");
        for (int i = 0; i < int(std::size(kRuns)); ++i)
            QTest::newRow(kRuns[i].name) << i;
    }
    void exitCodes()
    {
        QFETCH(int, row);
        const Run &run = kRuns[row];
        const QString setup = QLatin1String(run.setup);
        const QString steps = QLatin1String(run.steps);
        if (setup == QLatin1String("no backend"))
            makeEnvironment(QStringLiteral("http://127.0.0.1:9"));
        else if (setup == QLatin1String("sudo-refuses"))
            m_env->writeFile(setup, {});
        else if (setup == QLatin1String("silent client"))
            useClient("while :; do sleep 1 & wait $!; done\n");
        else if (setup == QLatin1String("auth failed"))
            useClient("printf 'ovpncli: AUTH_FAILED\\n'; sleep 0.2; printf 'ovpncli: connect error\\n'\n");
        m_env->storage().storeAppAutoconnectEnabled(setup.startsWith(QLatin1String("auto:")));
        m_env->storage().storeLastConnectedCluster(setup.mid(5));

        HeadlessRunner::Options options;
        options.mode = run.mode;
        (run.mode == Mode::Script ? options.onConnectedCommand : options.target) = QLatin1String(run.argument);
        options.standardErrorIsTerminal = [] { return true; };
        int ended = -1;
        options.endLoop = [&ended](int exitCode) { ended = exitCode; };
        QTextStream out(&m_out);
        QTextStream err(&m_err);
        {
            HeadlessRunner runner(options, out, err);
            runner.start();
            for (const QString &step : steps.split(QLatin1Char('|'), Qt::SkipEmptyParts)) {
                if (step.startsWith(QLatin1String("wait ")))
                    QVERIFY2(clockUntil([&] { return (m_out + m_err).contains(step.mid(5)); }), qPrintable(step));
                else if (step.startsWith(QLatin1String("ends with ")))
                    QVERIFY2(m_out.endsWith(step.mid(10) + QLatin1Char('\n')), qPrintable(m_out));
                else if (step == QLatin1String("tick"))
                    m_clock->advance(kClockStepMs * 5);
                else if (step == QLatin1String("signal"))
                    runner.interrupt(15);
                else if (step == QLatin1String("end"))
                    NQApplication::current()->terminate();
                else
                    runner.command(step);
            }
            clockUntil([&] { return ended >= 0; });
        }
        // The quit sequence's own delays, so nothing of this run is left for the next one.
        m_clock->advance(10000);
        QCOMPARE(ended, run.code);
        const QString said = QLatin1String(run.said);
        const bool unsaid = said.startsWith(QLatin1Char('!'));
        QVERIFY2((m_err + m_out).contains(said.mid(unsaid ? 1 : 0)) != unsaid, qPrintable(m_err + m_out));
        // Results and messages are kept apart.
        QVERIFY(!m_out.contains(QStringLiteral("Starting up")));
        // Whatever happened, no tunnel client is left behind (ended from outside, the service
        // helper, not running here, ends it).
        if (!steps.endsWith(QLatin1String("|end")))
            QTRY_VERIFY_WITH_TIMEOUT(
                QProcess::execute(QStringLiteral("pkill"),
                                  {QStringLiteral("-0"), QStringLiteral("-f"), m_env->helpersDirectory()}) != 0,
                kWaitMs);
    }

    // The real program: options, results on standard output, messages on standard error.
    void program_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("display");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("out"); // in standard output; none: it stays empty
        QTest::addColumn<QString>("err");
        const QString version = QStringLiteral("PelorinVPN %1\n").arg(AppUpdateManager::ownVersion());
        // An unknown option is refused the same way with a display as without one.
        for (const QString display : {"", ":99"})
            QTest::addRow("unknown option, display '%s'", qPrintable(display))
                << QStringList{"--colour"} << display << 2 << QString() << "Unknown option 'colour'";
        QTest::newRow("version") << QStringList{"--version"} << "" << 0 << version << "";
        QTest::newRow("help") << QStringList{"--help"} << "" << 0 << QStringLiteral("Exit codes") << "";
        QTest::newRow("script without check") << QStringList{"--script"} << "" << 2 << QString() << "--on-connected";
        QTest::newRow("list") << QStringList{"--headless", "--list"} << "" << 0 << QStringLiteral("\t(default)\n")
                              << "";
    }
    void program()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, display);
        QFETCH(int, code);
        QFETCH(QString, out);
        QFETCH(QString, err);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PELORIN_RESOURCES_DIR"), m_env->root() + QStringLiteral("/resources"));
        env.insert(QStringLiteral("PELORIN_HELPERS_DIR"), m_env->helpersDirectory());
        env.insert(QStringLiteral("PELORIN_SUDO"), m_env->root() + QStringLiteral("/sudo"));
        env.insert(QStringLiteral("PELORIN_TMPDIR"), m_env->temporaryDirectory());
        env.insert(QStringLiteral("PELORIN_DATA_HOME"), m_env->root() + QStringLiteral("/data"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_env->root() + QStringLiteral("/config"));
        env.insert(QStringLiteral("DISPLAY"), display);
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/bin/pelorin-vpn"), arguments);
        QVERIFY(process.waitForFinished(kWaitMs));
        const QString stdOut = QString::fromUtf8(process.readAllStandardOutput());
        const QString stdErr = QString::fromUtf8(process.readAllStandardError());
        QCOMPARE(process.exitCode(), code);
        QVERIFY2(stdErr.contains(err), qPrintable(stdErr));
        QVERIFY2(out.isEmpty() ? stdOut.isEmpty() : stdOut.contains(out), qPrintable(stdOut));
    }
};

QTEST_GUILESS_MAIN(TestHeadless)
#include "tst_headless.moc"
