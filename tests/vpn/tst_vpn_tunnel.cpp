// The tunnel process controller against stand-in sudo and ovpncli programs: every marker
// rule and state transition, launch failures and the stop sequence; and the profile files it
// hands the client, in the private temporary folder.
#include "support/LogCapture.h"
#include "support/VpnTestEnvironment.h"
#include "vpn/TunnelProfileFiles.h"

#include <QtTest>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

namespace {
int modeOf(const QString &path)
{
    struct stat st {};
    return stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 0777) : -1;
}

QStringList entriesOf(const QString &dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}
} // namespace

class TestVpnTunnel : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void connectAndStop();
    void unreportedEndIsHandedToTheOwner();
    void startsThatCannotRunChangeNothingMore();
    void staleClientNeverTouchesANewLaunch();
    void stopEndsDisconnectedWhateverTheKillByNameDoes();
    void profileFilesArePrivateAndStayInTheirFolder();

private:
    void install(const QByteArray &behaviour)
    {
        m_env->writeFile(QStringLiteral("helpers/ovpncli"), VpnTestEnvironment::kStandInClient, true);
        m_env->writeFile(QStringLiteral("helpers/behaviour"), behaviour);
    }
    void start() { m_env->manager().startVPNConnectionWithConfigContent("client", "DE"); }
    qint64 clientPid() const
    {
        return contentOf(m_env->root() + QStringLiteral("/helpers/pid")).trimmed().toLongLong();
    }
    bool logged(const QString &text) const
    {
        return m_logs->lines().contains(QStringLiteral("|NQVPNManager| ") + text);
    }
    QList<int> states() const { return m_reports->snapshot(); }
    void go(int step) const { m_env->writeFile(QStringLiteral("helpers/go%1").arg(step), {}); }

    std::unique_ptr<VpnTestEnvironment> m_env;
    std::unique_ptr<LogCapture> m_logs;
    std::shared_ptr<VpnReports> m_reports;
};

void TestVpnTunnel::init()
{
    m_env = std::make_unique<VpnTestEnvironment>();
    m_logs = std::make_unique<LogCapture>();
    m_env->writeFile(QStringLiteral("sudo"), VpnTestEnvironment::kStandInSudo, true);
    m_env->storage().storeVPNCredentials(QStringLiteral("user"), QStringLiteral("secret"));
    m_reports = m_env->recordReports();
}

void TestVpnTunnel::cleanup()
{
    // A client left running by a failed test must not outlive it.
    if (const qint64 pid = clientPid(); processAlive(pid)) {
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(!m_logs->lines().filter("OpenVPN process terminated").isEmpty(), kVpnWaitMs);
    }
    m_logs.reset();
    m_env.reset();
}

void TestVpnTunnel::connectAndStop()
{
    install(VpnTestEnvironment::kConnectThenWait);
    NQVPNManager &vpn = m_env->manager();
    NQVPNCountry germany;
    germany.countryName = QStringLiteral("Germany");
    vpn.setCurrentCountry(germany);

    vpn.startVPNConnectionWithConfigContent(QStringLiteral("client\nauth-user-pass\n"), QStringLiteral("Germany"));
    QCOMPARE(states(), QList<int>{2});
    QTRY_COMPARE_WITH_TIMEOUT(states(), (QList<int>{2, 3}), kVpnWaitMs);
    QVERIFY(logged("VPN Connected Successfully."));

    // sudo got the client and the profile, nothing else.
    const QString tmp = m_env->temporaryDirectory();
    QCOMPARE(contentOf(m_env->root() + QStringLiteral("/sudo-calls")),
             (m_env->helpersDirectory() + QStringLiteral("/ovpncli ") + tmp + QStringLiteral("/NQ_VPN_Germany.ovpn\n"))
                 .toUtf8());
    // The pid recorded is the launched process (the stand-in sudo replaces itself by the client).
    QCOMPARE(contentOf(tmp + QStringLiteral("/PelorinVPN.pid")).toLongLong(), clientPid());

    vpn.stopVPNConnection();
    // Stop blocks until the kill by name is done, and ends in 1.
    QCOMPARE(states().mid(0, 4), (QList<int>{2, 3, 5, 1}));
    QVERIFY(!vpn.currentCountry());
    // Both sudo runs (client, kill by name) were in a session other than ours.
    const QList<QByteArray> sessions = contentOf(m_env->root() + QStringLiteral("/sudo-sessions")).split('\n');
    QCOMPARE(sessions.size(), 3);
    for (const QByteArray &session : sessions.mid(0, 2))
        QVERIFY(session.toLongLong() != ::getsid(0));
    // The exit is logged without a state of its own.
    QTRY_VERIFY_WITH_TIMEOUT(logged("OpenVPN process terminated with exit code: 143"), kVpnWaitMs);
    QCOMPARE(states().last(), 1);
}

void TestVpnTunnel::unreportedEndIsHandedToTheOwner()
{
    // The exit itself changes no state; a run whose output never said it ended is handed to
    // the owner, whose part it is to tell the user and stop.
    install("exit 3\n");
    start();
    QTRY_COMPARE_WITH_TIMEOUT(m_reports->endsSnapshot().size(), 1, kVpnWaitMs);
    QCOMPARE(states(), QList<int>{2});
    QCOMPARE(m_reports->endsSnapshot().first().kind, TunnelClientEnd::Kind::EndedUnreported);
    QCOMPARE(m_reports->endsSnapshot().first().exitStatus, 3);
}

void TestVpnTunnel::startsThatCannotRunChangeNothingMore()
{
    // No client: nothing starts and the state is left alone.
    start();
    QCOMPARE(m_logs->lines().last(), QStringLiteral("|NQVPNManager| OpenVPN executable not found."));
    QVERIFY(states().isEmpty());

    // A sudo that cannot be run: connecting, until the user cancels.
    install(VpnTestEnvironment::kConnectThenWait);
    QFile::setPermissions(m_env->root() + QStringLiteral("/sudo"), QFileDevice::ReadOwner);
    start();
    QCOMPARE(states(), QList<int>{2});
    QCOMPARE(m_logs->lines().filter("|NQVPNManager| Failed to start OpenVPN with sudo: ").size(), 1);
    QVERIFY(!entriesOf(m_env->temporaryDirectory()).contains(QStringLiteral("PelorinVPN.pid")));
}

void TestVpnTunnel::staleClientNeverTouchesANewLaunch()
{
    // The first client lingers and only says goodbye once the second one is up.
    install(R"SH(
if [ -e "$here/second" ]; then printf 'ovpncli: state CONNECTED\n'; step 2; exit 0; fi
step 1
printf 'ovpncli: Exiting due to signal 15\n'
)SH");
    start();
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(m_env->root() + QStringLiteral("/helpers/pid")), kVpnWaitMs);
    m_env->writeFile(QStringLiteral("helpers/second"), {});
    start();
    QTRY_COMPARE_WITH_TIMEOUT(states(), (QList<int>{2, 2, 3}), kVpnWaitMs);
    go(1);
    QTRY_VERIFY_WITH_TIMEOUT(logged("Output: ovpncli: Exiting due to signal 15\n"), kVpnWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(logged("OpenVPN process terminated with exit code: 0"), kVpnWaitMs);
    QCOMPARE(states(), (QList<int>{2, 2, 3}));
    QCOMPARE(m_env->storage().getVPNStatus(), 3);
    QVERIFY(m_reports->endsSnapshot().isEmpty());
}

void TestVpnTunnel::stopEndsDisconnectedWhateverTheKillByNameDoes()
{
    // Nothing running: pkill's status 1 is reported as a failure, with its (empty) output.
    Platform::instance().temporaryDirectory(); // made private, as a run makes it
    m_env->writeFile(QStringLiteral("run/tmp/leftover"), "x");
    m_env->manager().stopVPNConnection();
    QCOMPARE(states(), (QList<int>{5, 1}));
    QVERIFY(logged("Failed to disconnect OpenVPN connections. Error: "));
    QVERIFY(entriesOf(m_env->temporaryDirectory()).isEmpty());

    // A client that ignores signals: the kill by name reached it (status 0), so the stop
    // reports success and ends in 1 even though this client is still there.
    install("trap '' TERM INT HUP\nprintf 'ovpncli: state CONNECTED\\n'\nwhile :; do sleep 0.2; done\n");
    start();
    QTRY_COMPARE_WITH_TIMEOUT(states(), (QList<int>{5, 1, 2, 3}), kVpnWaitMs);
    m_env->manager().stopVPNConnection();
    QCOMPARE(states(), (QList<int>{5, 1, 2, 3, 5, 1}));
    QVERIFY(logged("All OpenVPN connections have been disconnected successfully."));
    QVERIFY(processAlive(clientPid()));

    // A kill by name that hangs is given up on; the stop goes on.
    m_env->writeFile(QStringLiteral("sudo-hangs"), {});
    m_env->manager().setKillByNameTimeoutForTesting(200);
    m_env->manager().stopVPNConnection();
    QCOMPARE(states().mid(6), (QList<int>{5, 1}));
    QCOMPARE(m_logs->lines().filter("did not finish within 200 ms").size(), 1);
}

void TestVpnTunnel::profileFilesArePrivateAndStayInTheirFolder()
{
    const QString tmp = m_env->root() + QStringLiteral("/profiles");
    const QString outside = m_env->root() + QStringLiteral("/outside");
    QDir().mkpath(tmp + QStringLiteral("/NQ_VPN_x"));
    m_env->writeFile(QStringLiteral("profiles/.hidden"), {});
    QDir().mkpath(outside);
    m_env->writeFile(QStringLiteral("outside/keep"), {});
    const TunnelProfileFiles files([&] { return tmp; });
    // The cluster name is kept verbatim; a nil one is written as the platform formats nil.
    for (const QString &name : {QStringLiteral("Côte d'Ivoire \"A\""), QStringLiteral(".."), QString()}) {
        const QString path = files.writeConfigToTemporaryFile(QStringLiteral("client\n"), name);
        QCOMPARE(path, tmp + QStringLiteral("/NQ_VPN_%1.ovpn").arg(name.isNull() ? "(null)" : name));
        QCOMPARE(contentOf(path), QByteArray("client\n"));
        QCOMPARE(modeOf(path), 0600);
    }
    for (const QString &name : {QStringLiteral("x/../../escaped"), QString(300, u'n')})
        QVERIFY(files.writeConfigToTemporaryFile(QStringLiteral("client"), name).isNull());
    QCOMPARE(m_logs->lines().filter("|NQVPNManager| Failed to write temporary OpenVPN config file: ").size(), 2);
    QVERIFY(!QFile::exists(m_env->root() + QStringLiteral("/escaped.ovpn")));
    const QString auth = files.writeCredentialsToTemporaryFileWithUsername("user", QStringLiteral("pässword"));
    QCOMPARE(auth, tmp + QStringLiteral("/auth.txt"));
    QCOMPARE(contentOf(auth), QByteArray("user\np\xc3\xa4ssword"));
    // Written again: replaced whole, still private; nothing stored is written as "(null)".
    QCOMPARE(files.writeCredentialsToTemporaryFileWithUsername(QString(), QStringLiteral("")), auth);
    QCOMPARE(contentOf(auth), QByteArray("(null)\n"));
    QCOMPARE(modeOf(auth), 0600);
    files.writePidFile(4242);
    QCOMPARE(files.readPidFile(), 4242);
    files.removeFile(QStringLiteral("PelorinVPN.pid"));
    QCOMPARE(files.readPidFile(), 0);

    // Preparing leaves exactly the two files; the rewrite is textual: every occurrence,
    // comments included, a named file kept after it.
    QFile::link(outside, tmp + QStringLiteral("/link"));
    const QString path = files.prepare(QStringLiteral("# auth-user-pass\nauth-user-pass old\nAUTH-USER-PASS\n"),
                                       QStringLiteral("United States"), "u", "p");
    QCOMPARE(entriesOf(tmp), (QStringList{QStringLiteral("NQ_VPN_United States.ovpn"), QStringLiteral("auth.txt")}));
    const QByteArray at = auth.toUtf8();
    QCOMPARE(contentOf(path), "# auth-user-pass " + at + "\nauth-user-pass " + at + " old\nAUTH-USER-PASS\n");
    // With a name that would leave the folder it abandons the start and leaves the folder empty.
    QVERIFY(files.prepare(QStringLiteral("client"), QStringLiteral("a/b"), "u", "p").isNull());
    QCOMPARE(m_logs->lines().last(), QStringLiteral("|NQVPNManager| Failed to create temporary configuration file."));
    // The link inside to a folder outside went; the target and its content stay (checked below).
    QVERIFY(entriesOf(tmp).isEmpty());

    // No usable folder (the platform refused it): nothing is touched, not even the current one.
    const QString cwd = QDir::currentPath();
    QDir::setCurrent(outside);
    const TunnelProfileFiles none([] { return QString(); });
    none.clearTemporaryDirectory();
    QVERIFY(none.writeConfigToTemporaryFile(QStringLiteral("c"), QStringLiteral("DE")).isNull());
    QDir::setCurrent(cwd);
    QCOMPARE(entriesOf(outside), QStringList{QStringLiteral("keep")});
}

QTEST_GUILESS_MAIN(TestVpnTunnel)
#include "tst_vpn_tunnel.moc"
