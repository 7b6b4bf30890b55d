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
} // namespace

class TestHeadless : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void exitCodes_data();
    void exitCodes();
    void disconnectKeepsRunning();
    void interruptedBeforeConnected();
    void programOptions();
    void listAsksForTheCatalogueOnly();
    void idleConnectsAutomatically_data();
    void idleConnectsAutomatically();

private:
    // Runs the console client until it ends; its exit code (-1: it did not end).
    int run(HeadlessRunner::Options options, const std::function<void(HeadlessRunner &)> &whileRunning = {});
    void useClient(const QByteArray &behaviour);
    QProcessEnvironment programEnvironment() const;
    // Runs the real program to its end.
    struct Ran {
        int code;
        QByteArray out, err;
    };
    Ran runProgram(const QStringList &arguments, const QProcessEnvironment &env) const;

    DevBackendProcess m_backend;
    std::unique_ptr<VpnTestEnvironment> m_env;
    std::unique_ptr<TestClock> m_clock;
    QString m_out;
    QString m_err;
};

void TestHeadless::initTestCase()
{
    QVERIFY(m_backend.start());
    // The reachability check asks the built-in backend address.
    qputenv("PELORIN_BACKEND_URL", m_backend.baseUrl().toUtf8());
    qputenv("PELORIN_EXTENSION_PORT", "0");
}

void TestHeadless::init()
{
    m_env = std::make_unique<VpnTestEnvironment>(m_backend.baseUrl());
    qputenv("PELORIN_AUTOSTART_DIR", QFile::encodeName(m_env->root() + QStringLiteral("/autostart")));
    m_env->writeFile(QStringLiteral("sudo"), VpnTestEnvironment::kStandInSudo, true);
    useClient(VpnTestEnvironment::kConnectThenWait);
    m_clock = std::make_unique<TestClock>();
    MainQueue::setTestClock(m_clock.get());
    m_out.clear();
    m_err.clear();
}

void TestHeadless::cleanup()
{
    MainQueue::setTestClock(nullptr);
    m_clock.reset();
    m_env.reset();
}

void TestHeadless::useClient(const QByteArray &behaviour)
{
    m_env->writeFile(QStringLiteral("helpers/ovpncli"), VpnTestEnvironment::kStandInClient, true);
    m_env->writeFile(QStringLiteral("helpers/behaviour"), behaviour);
}

int TestHeadless::run(HeadlessRunner::Options options, const std::function<void(HeadlessRunner &)> &whileRunning)
{
    int code = -1;
    options.endLoop = [&code](int exitCode) { code = exitCode; };
    options.standardErrorIsTerminal = [] { return true; };
    QTextStream out(&m_out);
    QTextStream err(&m_err);
    {
        HeadlessRunner runner(options, out, err);
        runner.start();
        if (whileRunning)
            whileRunning(runner);
        // Replies and the client's output arrive in real time; the product's delays pass on the clock.
        QElapsedTimer waited;
        waited.start();
        while (code < 0 && waited.elapsed() < kWaitMs) {
            QTest::qWait(20);
            m_clock->advance(kClockStepMs);
        }
        if (code >= 0)
            code = runner.exitCode() == code ? code : -2;
    }
    // The quit sequence's own delays, so nothing of this run is left for the next one.
    m_clock->advance(10000);
    return code;
}

void TestHeadless::exitCodes_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("argument"); // the cluster, or the check
    QTest::addColumn<QString>("setup");    // what is made to go wrong
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("said"); // on standard error, or standard output for results
    using Mode = HeadlessRunner::Mode;
    QTest::newRow("script passes") << int(Mode::Script) << "true"
                                   << "" << 0 << "Traffic check passed";
    QTest::newRow("script check fails") << int(Mode::Script) << "false"
                                        << "" << 5 << "Traffic check FAILED";
    QTest::newRow("no such cluster") << int(Mode::Connect) << "Atlantis"
                                     << "" << 2 << "No cluster named 'Atlantis'";
    QTest::newRow("backend unreachable") << int(Mode::Connect) << "DE"
                                         << "no backend" << 3 << "giving up";
    QTest::newRow("sudo refuses") << int(Mode::Connect) << "DE"
                                  << "sudo-refuses" << 4 << "log out and in again";
    QTest::newRow("no tunnel in time") << int(Mode::Connect) << "DE"
                                       << "silent client" << 4 << "No tunnel after 60 seconds";
    QTest::newRow("tunnel refused") << int(Mode::Connect) << "DE"
                                    << "auth failed" << 4 << "The server refused the VPN credentials";
}

void TestHeadless::exitCodes()
{
    QFETCH(int, mode);
    QFETCH(QString, argument);
    QFETCH(QString, setup);
    QFETCH(int, code);
    QFETCH(QString, said);
    if (setup == QLatin1String("no backend")) {
        m_env.reset();
        m_env = std::make_unique<VpnTestEnvironment>(QStringLiteral("http://127.0.0.1:9"));
    }
    m_env->writeFile(QStringLiteral("sudo"), VpnTestEnvironment::kStandInSudo, true);
    useClient(VpnTestEnvironment::kConnectThenWait);
    if (setup == QLatin1String("sudo-refuses"))
        m_env->writeFile(setup, {});
    else if (setup == QLatin1String("silent client"))
        useClient("while :; do sleep 1 & wait $!; done\n");
    else if (setup == QLatin1String("auth failed"))
        useClient("printf 'ovpncli: AUTH_FAILED\\n'; sleep 0.2; printf 'ovpncli: connect error\\n'\n");

    HeadlessRunner::Options options;
    options.mode = HeadlessRunner::Mode(mode);
    if (options.mode == HeadlessRunner::Mode::Script)
        options.onConnectedCommand = argument;
    else
        options.target = argument;
    QCOMPARE(run(options), code);
    QVERIFY2(m_err.contains(said) || m_out.contains(said), qPrintable(m_err + m_out));
    // Results and messages are kept apart.
    QVERIFY(!m_out.contains(QStringLiteral("Starting up")));
    // Whatever happened, no tunnel client is left behind.
    QTRY_VERIFY_WITH_TIMEOUT(QProcess::execute(QStringLiteral("pkill"), {QStringLiteral("-0"), QStringLiteral("-f"),
                                                                         m_env->helpersDirectory()}) != 0,
                             kWaitMs);
}

void TestHeadless::disconnectKeepsRunning()
{
    HeadlessRunner::Options options;
    options.mode = HeadlessRunner::Mode::Connect;
    options.target = QStringLiteral("DE");
    const int code = run(options, [this](HeadlessRunner &runner) {
        QTRY_VERIFY_WITH_TIMEOUT((m_clock->advance(kClockStepMs), m_out.contains(QStringLiteral("Connected to"))),
                                 kWaitMs);
        runner.command(QStringLiteral("disconnect"));
        QTRY_VERIFY_WITH_TIMEOUT(m_out.contains(QStringLiteral("State: 1 disconnected")), kWaitMs);
        // Still running: later time and commands are still served.
        m_clock->advance(kClockStepMs * 5);
        runner.command(QStringLiteral("status"));
        QVERIFY(m_out.endsWith(QStringLiteral("State: 1 disconnected\n")));
        runner.command(QStringLiteral("quit"));
    });
    QCOMPARE(code, 0);
}

void TestHeadless::interruptedBeforeConnected()
{
    // A signal, or the application ended by someone else (an update being installed).
    for (const bool bySignal : {true, false}) {
        useClient("while :; do sleep 1 & wait $!; done\n");
        m_out.clear();
        HeadlessRunner::Options options;
        options.mode = HeadlessRunner::Mode::Connect;
        options.target = QStringLiteral("DE");
        const int code = run(options, [this, bySignal](HeadlessRunner &runner) {
            QTRY_VERIFY_WITH_TIMEOUT((m_clock->advance(kClockStepMs), m_out.contains(QStringLiteral("State: 2"))),
                                     kWaitMs);
            if (bySignal)
                runner.interrupt(15);
            else
                NQApplication::current()->terminate();
        });
        QCOMPARE(code, int(HeadlessRunner::kExitInterrupted));
    }
}

QProcessEnvironment TestHeadless::programEnvironment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("PELORIN_RESOURCES_DIR"), m_env->root() + QStringLiteral("/resources"));
    env.insert(QStringLiteral("PELORIN_HELPERS_DIR"), m_env->helpersDirectory());
    env.insert(QStringLiteral("PELORIN_SUDO"), m_env->root() + QStringLiteral("/sudo"));
    env.insert(QStringLiteral("PELORIN_TMPDIR"), m_env->temporaryDirectory());
    env.insert(QStringLiteral("PELORIN_DATA_HOME"), m_env->root() + QStringLiteral("/data"));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_env->root() + QStringLiteral("/config"));
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    return env;
}

TestHeadless::Ran TestHeadless::runProgram(const QStringList &arguments, const QProcessEnvironment &env) const
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/bin/pelorin-vpn"), arguments);
    process.waitForFinished(kWaitMs);
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

void TestHeadless::programOptions()
{
    QProcessEnvironment env = programEnvironment();
    // An unknown option is refused the same way with a display as without one.
    for (const QString &display : {QString(), QStringLiteral(":99")}) {
        env.insert(QStringLiteral("DISPLAY"), display);
        const Ran ran = runProgram({QStringLiteral("--colour")}, env);
        QCOMPARE(ran.code, int(HeadlessRunner::kExitUsage));
        QVERIFY(ran.out.isEmpty());
        QVERIFY(ran.err.contains("Unknown option 'colour'"));
    }
    env = programEnvironment();
    const Ran version = runProgram({QStringLiteral("--version")}, env);
    QCOMPARE(version.code, 0);
    QCOMPARE(version.out.trimmed(), QStringLiteral("PelorinVPN %1").arg(AppUpdateManager::ownVersion()).toUtf8());
    const Ran help = runProgram({QStringLiteral("--help")}, env);
    QCOMPARE(help.code, 0);
    for (const char *needed : {"disconnect", "CLEAR_USERDEFAULTS", "CLEAR_VPN", "Exit codes", "6  interrupted"})
        QVERIFY2(help.out.contains(needed), needed);
    const Ran script = runProgram({QStringLiteral("--script")}, env);
    QCOMPARE(script.code, int(HeadlessRunner::kExitUsage));
    QVERIFY(script.err.contains("--on-connected"));
}

void TestHeadless::listAsksForTheCatalogueOnly()
{
    m_backend.clearRequests();
    const Ran list = runProgram({QStringLiteral("--headless"), QStringLiteral("--list")}, programEnvironment());
    QCOMPARE(list.code, 0);
    QVERIFY2(list.out.contains("\t(default)\n"), list.out.constData());
    QStringList paths;
    for (const QJsonValue &request : m_backend.requests())
        paths << request.toObject().value(QStringLiteral("path")).toString();
    QCOMPARE(paths.size(), 1);
    QVERIFY2(paths.first().startsWith(QStringLiteral("/api1/vpnapi/serverlist/")), qPrintable(paths.first()));

    // With no backend: the catalogue cannot be had.
    m_env->writeFile(QStringLiteral("resources/CommonConfig.plist"),
                     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                     "<key>Host URL</key><string>http://127.0.0.1:9</string></dict></plist>\n");
    const Ran unreachable = runProgram({QStringLiteral("--list")}, programEnvironment());
    QCOMPARE(unreachable.code, int(HeadlessRunner::kExitBackendUnreachable));
    QVERIFY(unreachable.out.isEmpty());
    QVERIFY(unreachable.err.contains("Cannot load the server list"));
}

// Without a cluster named, "Connect automatically" connects to the last cluster (by name),
// else to the default one; switched off, the console only starts up.
void TestHeadless::idleConnectsAutomatically_data()
{
    QTest::addColumn<bool>("on");
    QTest::addColumn<QString>("last");
    QTest::addColumn<QString>("connectedTo");
    QTest::newRow("off") << false << "Canada"
                         << "";
    QTest::newRow("last cluster") << true << "Canada"
                                  << "Canada";
    QTest::newRow("last cluster gone") << true << "Atlantis"
                                       << "United States";
}

void TestHeadless::idleConnectsAutomatically()
{
    QFETCH(bool, on);
    QFETCH(QString, last);
    QFETCH(QString, connectedTo);
    m_env->storage().storeAppAutoconnectEnabled(on);
    m_env->storage().storeLastConnectedCluster(last);
    const int code = run({}, [&](HeadlessRunner &runner) {
        // Quit whatever happened, so a failure ends the run at once (checked below).
        [[maybe_unused]] const bool seen = QTest::qWaitFor(
            [&] {
                m_clock->advance(kClockStepMs);
                return m_err.contains(QStringLiteral("Ready.")) &&
                       (connectedTo.isEmpty() || m_out.contains(QStringLiteral("Connected to")));
            },
            kWaitMs);
        m_clock->advance(kClockStepMs * 5);
        runner.command(QStringLiteral("quit"));
    });
    QCOMPARE(code, 0);
    QCOMPARE(m_err.contains(QStringLiteral("Connecting")), on);
    if (on)
        QVERIFY2(m_out.contains(QStringLiteral("Connected to ") + connectedTo + QLatin1Char('\n')), qPrintable(m_out));
}

QTEST_GUILESS_MAIN(TestHeadless)
#include "tst_headless.moc"
