// Blocking traffic outside the tunnel, for real: ovpncli's nftables table in the lab's client
// namespace. A host beside the VPN server is the "outside"; the tunnel must carry traffic while
// the outside is blocked, and the outside must flow again whenever the block is lifted.
#include "backend/NQIdentityServer.h"
#include "support/LogCapture.h"
#include "tunnellab/TunnelLab.h"
#include "vpn/support/VpnTestEnvironment.h"

#include <QFileInfo>
#include <QtTest>

#include <atomic>

namespace {
// A connect takes a second or two here; the limits only bound a broken run.
constexpr int kStepMs = 30000;
const QString kTunnel = QLatin1String(TunnelLab::kServerTunnelAddress);
const QString kOutside = QLatin1String(TunnelLab::kOutsideAddress);
} // namespace

class TestE2eKillSwitch : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void outsideTrafficIsBlockedOnlyWhileTheSwitchHolds();

private:
    void connectAndCheckBlocked();

    std::unique_ptr<TunnelLab> m_lab;
    std::unique_ptr<VpnTestEnvironment> m_env;
    std::shared_ptr<std::atomic<int>> m_state = std::make_shared<std::atomic<int>>(1);
    QString m_profile;
};

void TestE2eKillSwitch::initTestCase()
{
    if (const QString reason = TunnelLab::unavailableReason(); !reason.isEmpty())
        QSKIP(qPrintable(QStringLiteral("kill switch test skipped: ") + reason));
    if (!QFileInfo(QStringLiteral("/usr/sbin/nft")).isExecutable())
        QSKIP("kill switch test skipped: nft is not installed (package nftables)");
    m_lab = std::make_unique<TunnelLab>(QString::fromLocal8Bit(qgetenv("PELORIN_BINARY_DIR")));
    QString why;
    QVERIFY2(m_lab->setUp(&why), qPrintable(why));
    m_env = std::make_unique<VpnTestEnvironment>(
        m_lab->backendUrl(),
        VpnTestEnvironment::Places{m_lab->helpersDirectory(), m_lab->sudoPath(), m_lab->clientTemporaryDirectory()});
    bool registered = false;
    NQIdentityServer::sharedManager().registerVpnApi(
        [&](const QString &, const QString &, const QString &error) { registered = error.isEmpty(); });
    QTRY_VERIFY_WITH_TIMEOUT(registered, kStepMs);
    NQVPNManager &vpn = m_env->manager();
    bool listed = false;
    vpn.getCountries([&](const QList<NQVPNCountry> &, const NQErrorOpt &error) { listed = !error; });
    QTRY_VERIFY_WITH_TIMEOUT(listed, kStepMs);
    QVERIFY(!vpn.availableCountries().isEmpty());
    vpn.setCurrentCountry(vpn.availableCountries().first());
    vpn.getCountryVPNConfig(vpn.currentCountry()->countryId,
                            [&](const QString &ovpn, const QString &, const NQErrorOpt &error) {
                                m_profile = error ? QStringLiteral("<error>") : ovpn;
                            });
    QTRY_VERIFY_WITH_TIMEOUT(!m_profile.isNull(), kStepMs);
    QVERIFY2(m_profile.contains(QLatin1String("remote ")), qPrintable(m_profile));
    vpn.setOnConnectionStateChange([state = m_state](int value) { *state = value; });
}

void TestE2eKillSwitch::cleanupTestCase()
{
    if (m_env) {
        m_env->manager().setKillSwitchEnabled(false);
        m_env->manager().stopVPNConnection();
        m_env->manager().setOnConnectionStateChange(nullptr);
    }
    m_env.reset();
    m_lab.reset();
}

void TestE2eKillSwitch::connectAndCheckBlocked()
{
    NQVPNManager &vpn = m_env->manager();
    vpn.startVPNConnectionWithConfigContent(m_profile, QStringLiteral("Lab"));
    QTRY_COMPARE_WITH_TIMEOUT(m_state->load(), 3, kStepMs);
    QVERIFY(vpn.trafficBlocked());
    QTRY_VERIFY_WITH_TIMEOUT(m_lab->ping(kTunnel), kStepMs);
    QVERIFY(!m_lab->ping(kOutside));
}

void TestE2eKillSwitch::outsideTrafficIsBlockedOnlyWhileTheSwitchHolds()
{
    LogCapture logs;
    NQVPNManager &vpn = m_env->manager();
    QVERIFY(m_lab->ping(kOutside));
    vpn.setKillSwitchEnabled(true);

    // Disconnect lifts the block.
    connectAndCheckBlocked();
    vpn.stopVPNConnection();
    QTRY_VERIFY_WITH_TIMEOUT(m_lab->clientProcesses().isEmpty(), kStepMs);
    QTRY_VERIFY_WITH_TIMEOUT(!vpn.trafficBlocked(), kStepMs);
    QVERIFY(m_lab->ping(kOutside));
    // The client lifted it itself (it must also when the program is gone).
    QVERIFY(!logs.lines().filter(QStringLiteral("ovpncli: kill switch off")).isEmpty());

    // A killed client leaves its table. A reconnecting owner keeps it through the gap; the
    // next program start lifts it.
    connectAndCheckBlocked();
    vpn.setHoldBlockBetweenRuns(true);
    TunnelLab::run({QStringLiteral("pkill"), QStringLiteral("-KILL"), QStringLiteral("-f"),
                    QStringLiteral("^%1/ovpncli ").arg(m_lab->helpersDirectory())});
    QTRY_VERIFY_WITH_TIMEOUT(m_lab->clientProcesses().isEmpty(), kStepMs);
    QVERIFY(!m_lab->ping(kOutside));
    QVERIFY(vpn.trafficBlocked());
    NQVPNManager restarted;
    restarted.clearKillSwitchLeftBehind();
    QVERIFY(m_lab->ping(kOutside));
    vpn.stopVPNConnection();

    // Killed with nobody holding the block: the engine lifts it as soon as the client ends.
    connectAndCheckBlocked();
    TunnelLab::run({QStringLiteral("pkill"), QStringLiteral("-KILL"), QStringLiteral("-f"),
                    QStringLiteral("^%1/ovpncli ").arg(m_lab->helpersDirectory())});
    QTRY_VERIFY_WITH_TIMEOUT(!vpn.trafficBlocked(), kStepMs);
    QVERIFY(m_lab->ping(kOutside));
    vpn.stopVPNConnection();

    // Turning the switch off lets the outside through at once; the tunnel stays up.
    connectAndCheckBlocked();
    vpn.setKillSwitchEnabled(false);
    QVERIFY(!vpn.trafficBlocked());
    QVERIFY(m_lab->ping(kOutside));
    QVERIFY(m_lab->ping(kTunnel));
    vpn.stopVPNConnection();
    QTRY_VERIFY_WITH_TIMEOUT(m_lab->clientProcesses().isEmpty(), kStepMs);
    QVERIFY2(logs.lines().filter(QStringLiteral("Cannot lift")).isEmpty(), qPrintable(logs.lines().join('\n')));
}

QTEST_GUILESS_MAIN(TestE2eKillSwitch)
#include "tst_e2e_killswitch.moc"
