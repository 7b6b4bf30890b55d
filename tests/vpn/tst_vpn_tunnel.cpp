// The tunnel process controller against stand-in sudo and ovpncli programs: every marker
// rule and state transition, launch failures and the stop sequence.
#include "foundation/MainQueue.h"
#include "support/LogCapture.h"
#include "support/VpnTestEnvironment.h"
#include "vpn/TunnelClientEnd.h"

#include <QtTest>

#include <csignal>
#include <mutex>

#include <unistd.h>

namespace {
constexpr int kWaitMs = 15000;

const QByteArray kStandInSudo = VpnTestEnvironment::kStandInSudo;
const QByteArray kStandInClient = VpnTestEnvironment::kStandInClient;

const QByteArray kConnectThenWait = VpnTestEnvironment::kConnectThenWait;

struct StateLog {
    mutable std::mutex mutex;
    QList<int> states;
    QList<bool> onMainThread;
    QList<int> snapshot() const
    {
        std::lock_guard lock(mutex);
        return states;
    }
};

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) == 0;
}
} // namespace

class TestVpnTunnel : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void connectAndStop();
    void markersAreReadChunkByChunk();
    void theExitItselfChangesNoState();
    void launchFailureLeavesConnecting();
    void missingClientChangesNothing();
    void missingCredentialsStillStart();
    void staleClientNeverTouchesANewLaunch();
    void refusedOrSilentEndsAreHandedToTheOwner();
    void stopWithNothingRunning();
    void stopWithAClientThatIgnoresSignals();
    void stopDoesNotWaitForeverForTheKillByName();

private:
    void install(const QByteArray &behaviour);
    qint64 clientPid() const
    {
        return contentOf(m_env->root() + QStringLiteral("/helpers/pid")).trimmed().toLongLong();
    }
    void waitForOutput(const QString &text);

    std::unique_ptr<VpnTestEnvironment> m_env;
    std::unique_ptr<LogCapture> m_logs;
    std::shared_ptr<StateLog> m_states;
    std::shared_ptr<std::mutex> m_endsMutex = std::make_shared<std::mutex>();
    std::shared_ptr<QList<TunnelClientEnd>> m_ends;
    QList<TunnelClientEnd> ends() const
    {
        std::lock_guard lock(*m_endsMutex);
        return *m_ends;
    }
};

void TestVpnTunnel::init()
{
    m_env = std::make_unique<VpnTestEnvironment>();
    m_logs = std::make_unique<LogCapture>();
    m_env->writeFile(QStringLiteral("sudo"), kStandInSudo, true);
    m_env->storage().storeVPNCredentials(QStringLiteral("user"), QStringLiteral("secret"));
    m_states = std::make_shared<StateLog>();
    m_env->manager().setOnConnectionStateChange([states = m_states](int state) {
        std::lock_guard lock(states->mutex);
        states->states << state;
        states->onMainThread << MainQueue::isMainThread();
    });
    m_ends = std::make_shared<QList<TunnelClientEnd>>();
    m_env->manager().setOnClientEnded([ends = m_ends, mutex = m_endsMutex](const TunnelClientEnd &end) {
        std::lock_guard lock(*mutex);
        *ends << end;
    });
}

void TestVpnTunnel::cleanup()
{
    // A client left running by a failed test must not outlive it.
    if (const qint64 pid = clientPid(); processAlive(pid)) {
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        QTRY_VERIFY_WITH_TIMEOUT(!m_logs->lines().filter(QStringLiteral("OpenVPN process terminated")).isEmpty(),
                                 kWaitMs);
    }
    m_logs.reset();
    m_env.reset();
}

void TestVpnTunnel::install(const QByteArray &behaviour)
{
    m_env->writeFile(QStringLiteral("helpers/ovpncli"), kStandInClient, true);
    m_env->writeFile(QStringLiteral("helpers/behaviour"), behaviour);
}

void TestVpnTunnel::waitForOutput(const QString &text)
{
    QTRY_VERIFY_WITH_TIMEOUT(m_logs->lines().contains(QStringLiteral("|NQVPNManager| Output: ") + text), kWaitMs);
}

void TestVpnTunnel::connectAndStop()
{
    install(kConnectThenWait);
    NQVPNManager &vpn = m_env->manager();
    NQVPNCountry germany;
    germany.countryName = QStringLiteral("Germany");
    vpn.setCurrentCountry(germany);

    vpn.startVPNConnectionWithConfigContent(QStringLiteral("client\nauth-user-pass\n"), QStringLiteral("Germany"));
    QCOMPARE(m_states->snapshot().value(0), 2);
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot(), (QList<int>{2, 3}), kWaitMs);
    QCOMPARE(m_env->storage().getVPNStatus(), 3);
    // 2 on the caller's thread, 3 from the output reader.
    QCOMPARE(m_states->onMainThread, (QList<bool>{true, false}));
    QVERIFY(m_logs->lines().contains(QStringLiteral("|NQVPNManager| OpenVPN process started with sudo.")));
    QVERIFY(m_logs->lines().contains(QStringLiteral("|NQVPNManager| VPN Connected Successfully.")));

    // sudo got the client and the profile, nothing else; the client read the rewritten profile.
    const QString tmp = m_env->temporaryDirectory();
    const QString profile = tmp + QStringLiteral("/NQ_VPN_Germany.ovpn");
    QCOMPARE(contentOf(m_env->root() + QStringLiteral("/sudo-calls")),
             (m_env->helpersDirectory() + QStringLiteral("/ovpncli ") + profile + QLatin1Char('\n')).toUtf8());
    QCOMPARE(contentOf(m_env->root() + QStringLiteral("/helpers/args")), (profile + QLatin1Char('\n')).toUtf8());
    QCOMPARE(contentOf(m_env->root() + QStringLiteral("/helpers/profile-at-launch")),
             ("client\nauth-user-pass " + tmp + "/auth.txt\n").toUtf8());
    QCOMPARE(contentOf(tmp + QStringLiteral("/auth.txt")), QByteArray("user\nsecret"));
    // The pid recorded is the launched process (the stand-in sudo replaces itself by the client).
    QCOMPARE(contentOf(tmp + QStringLiteral("/PelorinVPN.pid")).toLongLong(), clientPid());

    const qint64 pid = clientPid();
    vpn.stopVPNConnection();
    // Stop blocks until the kill by name is done, and ends in 1.
    QCOMPARE(m_states->snapshot().mid(0, 4), (QList<int>{2, 3, 5, 1}));
    QCOMPARE(m_env->storage().getVPNStatus(), 1);
    QVERIFY(!vpn.currentCountry());
    QVERIFY(m_env->temporaryEntries().isEmpty());
    QVERIFY(contentOf(m_env->root() + QStringLiteral("/sudo-calls")).endsWith("pkill ovpncli\n"));
    QVERIFY(m_logs->lines().contains(
        QStringLiteral("|NQVPNManager| All OpenVPN connections have been disconnected successfully.")));
    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(pid), kWaitMs);
    // Both sudo runs (client, kill by name) were in a session other than ours.
    const QList<QByteArray> sessions = contentOf(m_env->root() + QStringLiteral("/sudo-sessions")).split('\n');
    QCOMPARE(sessions.size(), 3);
    for (const QByteArray &session : sessions.mid(0, 2))
        QVERIFY(session.toLongLong() != ::getsid(0));
    // The client's last words are read too, and the exit is logged without a state of its own.
    QTRY_VERIFY_WITH_TIMEOUT(
        m_logs->lines().contains(QStringLiteral("|NQVPNManager| OpenVPN process terminated with exit code: 143")),
        kWaitMs);
    QVERIFY(m_logs->lines().contains(QStringLiteral("|NQVPNManager| Output: ovpncli: Exiting due to signal 15\n")));
    const QList<int> states = m_states->snapshot();
    QVERIFY(states.size() <= 5);
    QCOMPARE(states.last(), 1);
}

void TestVpnTunnel::markersAreReadChunkByChunk()
{
    install(R"SH(
printf 'ovpncli: state CONN'; step 1
printf 'ECTED\n'; step 2
printf 'AUTH_FAILED\n'; step 3
/usr/bin/printf 'ovpncli: state CONNECTED\novpncli: state DISCONNECTED\n'; step 4
printf 'ovpncli: state CONNECTED\n'; step 5
printf '\xff DISCONNECTED\n'
)SH");
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    const auto go = [this](int step) { m_env->writeFile(QStringLiteral("helpers/go%1").arg(step), {}); };

    // A marker split across two chunks is not recognised.
    waitForOutput(QStringLiteral("ovpncli: state CONN"));
    go(1);
    waitForOutput(QStringLiteral("ECTED\n"));
    QCOMPARE(m_states->snapshot(), QList<int>{2});
    go(2);
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot(), (QList<int>{2, 0}), kWaitMs);
    QCOMPARE(m_env->storage().getVPNStatus(), 0);
    QVERIFY(m_logs->lines().contains(QStringLiteral("|NQVPNManager| VPN Authentication Failed.")));
    // Connect and disconnect in one chunk (one write, hence coreutils printf): disconnected.
    go(3);
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot(), (QList<int>{2, 0, 1}), kWaitMs);
    QVERIFY(m_logs->lines().contains(QStringLiteral("|NQVPNManager| VPN Disconnected.")));
    go(4);
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot(), (QList<int>{2, 0, 1, 3}), kWaitMs);
    // A last chunk that is not UTF-8 is dropped whole, marker and all, without a log line;
    // the exit itself changes nothing.
    go(5);
    QTRY_VERIFY_WITH_TIMEOUT(
        m_logs->lines().contains(QStringLiteral("|NQVPNManager| OpenVPN process terminated with exit code: 0")),
        kWaitMs);
    QCOMPARE(m_states->snapshot(), (QList<int>{2, 0, 1, 3}));
    QCOMPARE(m_env->storage().getVPNStatus(), 3);
    QVERIFY(m_logs->lines().filter(QStringLiteral("DISCONNECTED\n")).size() == 1);
}

void TestVpnTunnel::theExitItselfChangesNoState()
{
    // Whatever the last output said stays: an authentication failure, or nothing at all.
    const QList<QPair<QByteArray, QList<int>>> runs = {
        {"printf 'AUTH: Received control message: AUTH_FAILED\\n'\nexit 1\n", {2, 0}},
        {"exit 3\n", {2, 0, 2}},
    };
    for (const auto &[behaviour, states] : runs) {
        install(behaviour);
        m_logs->clear();
        m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
        QTRY_VERIFY_WITH_TIMEOUT(
            !m_logs->lines()
                 .filter(QStringLiteral("|NQVPNManager| OpenVPN process terminated with exit code: "))
                 .isEmpty(),
            kWaitMs);
        QCOMPARE(m_states->snapshot(), states);
        QCOMPARE(m_env->storage().getVPNStatus(), states.last());
    }
}

void TestVpnTunnel::launchFailureLeavesConnecting()
{
    install(kConnectThenWait);
    // A sudo that cannot be run.
    QFile::setPermissions(m_env->root() + QStringLiteral("/sudo"), QFileDevice::ReadOwner);
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QCOMPARE(m_states->snapshot(), QList<int>{2});
    QCOMPARE(m_env->storage().getVPNStatus(), 2);
    QCOMPARE(m_logs->lines().filter(QStringLiteral("|NQVPNManager| Failed to start OpenVPN with sudo: ")).size(), 1);
    QVERIFY(!m_logs->lines().contains(QStringLiteral("|NQVPNManager| OpenVPN process started with sudo.")));
    QVERIFY(!m_env->temporaryEntries().contains(QStringLiteral("PelorinVPN.pid")));
}

void TestVpnTunnel::missingClientChangesNothing()
{
    m_env->storage().storeVPNStatus(1);
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QCOMPARE(m_logs->lines().last(), QStringLiteral("|NQVPNManager| OpenVPN executable not found."));
    QVERIFY(m_states->snapshot().isEmpty());
    QCOMPARE(m_env->storage().getVPNStatus(), 1);
}

void TestVpnTunnel::missingCredentialsStillStart()
{
    // Nothing stored: the file says so and the start goes on; the server's refusal decides.
    install("printf 'ovpncli: AUTH_FAILED\\novpncli: connect error\\n'\n");
    m_env->storage().removeVpnCredentials();
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QCOMPARE(contentOf(m_env->temporaryDirectory() + QStringLiteral("/auth.txt")), QByteArray("(null)\n(null)"));
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot().last(), 1, kWaitMs);
    QCOMPARE(m_states->snapshot().first(), 2);
}

void TestVpnTunnel::staleClientNeverTouchesANewLaunch()
{
    // The first client lingers and only says goodbye once the second one is up.
    install(R"SH(
if [ -e "$here/second" ]; then printf 'ovpncli: state CONNECTED\n'; step 2; exit 0; fi
step 1
printf 'ovpncli: Exiting due to signal 15\n'
)SH");
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(m_env->root() + QStringLiteral("/helpers/pid")), kWaitMs);
    const qint64 first = clientPid();
    m_env->writeFile(QStringLiteral("helpers/second"), {});
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot(), (QList<int>{2, 2, 3}), kWaitMs);
    m_env->writeFile(QStringLiteral("helpers/go1"), {});
    waitForOutput(QStringLiteral("ovpncli: Exiting due to signal 15\n"));
    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(first), kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(
        m_logs->lines().contains(QStringLiteral("|NQVPNManager| OpenVPN process terminated with exit code: 0")),
        kWaitMs);
    QCOMPARE(m_states->snapshot(), (QList<int>{2, 2, 3}));
    QCOMPARE(m_env->storage().getVPNStatus(), 3);
    QVERIFY(ends().isEmpty());
}

void TestVpnTunnel::refusedOrSilentEndsAreHandedToTheOwner()
{
    // sudo refuses: the client never runs; the owner learns why and what to do.
    install(kConnectThenWait);
    m_env->writeFile(QStringLiteral("sudo-refuses"), {});
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QTRY_COMPARE_WITH_TIMEOUT(ends().size(), 1, kWaitMs);
    const TunnelClientEnd refused = ends().first();
    QCOMPARE(refused.kind, TunnelClientEnd::Kind::PrivilegeRefused);
    QVERIFY(refused.detail.startsWith(QStringLiteral("sudo: a terminal is required")));
    QVERIFY(refused.message().contains(QStringLiteral("group \"pelorin-vpn\"")));
    QVERIFY(refused.message().contains(QStringLiteral("log out and in again")));
    // The state is the owner's to change (it stops); the exit itself changed nothing.
    QCOMPARE(m_states->snapshot(), QList<int>{2});

    // A client that vanishes without its final line (killed) is handed over too.
    QFile::remove(m_env->root() + QStringLiteral("/sudo-refuses"));
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot(), (QList<int>{2, 2, 3}), kWaitMs);
    ::kill(static_cast<pid_t>(clientPid()), SIGKILL);
    QTRY_COMPARE_WITH_TIMEOUT(ends().size(), 2, kWaitMs);
    QCOMPARE(ends().last().kind, TunnelClientEnd::Kind::EndedUnreported);
    QCOMPARE(ends().last().exitStatus, 9);

    // A run that ended with its marker is nobody's business.
    install("printf 'ovpncli: connect error\\n'\nexit 1\n");
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QTRY_VERIFY_WITH_TIMEOUT(
        m_logs->lines().contains(QStringLiteral("|NQVPNManager| OpenVPN process terminated with exit code: 1")),
        kWaitMs);
    QCOMPARE(ends().size(), 2);
}

void TestVpnTunnel::stopWithNothingRunning()
{
    m_env->writeFile(QStringLiteral("run/tmp/leftover"), "x");
    m_env->writeFile(QStringLiteral("run/tmp/openvpn.state"), "x");
    m_env->manager().stopVPNConnection();
    QCOMPARE(m_states->snapshot(), (QList<int>{5, 1}));
    QCOMPARE(m_states->onMainThread, (QList<bool>{true, true}));
    QCOMPARE(m_env->storage().getVPNStatus(), 1);
    // pkill found nothing: its status 1 is reported as a failure, with its (empty) output.
    QVERIFY(
        m_logs->lines().contains(QStringLiteral("|NQVPNManager| Failed to disconnect OpenVPN connections. Error: ")));
    QVERIFY(m_env->temporaryEntries().isEmpty());
}

void TestVpnTunnel::stopWithAClientThatIgnoresSignals()
{
    install(R"SH(
trap '' TERM INT HUP
printf 'ovpncli: state CONNECTED\n'
while :; do sleep 0.2; done
)SH");
    m_env->manager().startVPNConnectionWithConfigContent(QStringLiteral("client"), QStringLiteral("DE"));
    QTRY_COMPARE_WITH_TIMEOUT(m_states->snapshot(), (QList<int>{2, 3}), kWaitMs);
    m_env->manager().stopVPNConnection();
    // The kill by name reached it (pkill status 0), so the stop reports success and ends in 1
    // even though this client is still there.
    QCOMPARE(m_states->snapshot(), (QList<int>{2, 3, 5, 1}));
    QVERIFY(m_logs->lines().contains(
        QStringLiteral("|NQVPNManager| All OpenVPN connections have been disconnected successfully.")));
    QVERIFY(processAlive(clientPid()));
}

void TestVpnTunnel::stopDoesNotWaitForeverForTheKillByName()
{
    m_env->writeFile(QStringLiteral("sudo-hangs"), {});
    m_env->manager().setKillByNameTimeoutForTesting(200);
    m_env->manager().stopVPNConnection();
    QCOMPARE(m_states->snapshot(), (QList<int>{5, 1}));
    QCOMPARE(m_logs->lines().filter(QStringLiteral("did not finish within 200 ms")).size(), 1);
}

QTEST_GUILESS_MAIN(TestVpnTunnel)
#include "tst_vpn_tunnel.moc"
