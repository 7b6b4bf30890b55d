// The whole tunnel for real: credentials and profile from the development backend, our
// ovpncli and the system openvpn in one network namespace, a real OpenVPN server checking the
// credentials in another. Skipped, with the reason, where the machine does not allow it.
#include "backend/NQIdentityServer.h"
#include "support/LogCapture.h"
#include "tunnellab/TunnelLab.h"
#include "vpn/support/VpnTestEnvironment.h"

#include <QElapsedTimer>
#include <QtTest>

namespace {
// A connect takes a second or two here; the limits only bound a broken run.
constexpr int kConnectMs = 30000;
constexpr int kStepMs = 20000;
} // namespace

class TestE2eTunnel : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void cleanup();
    void connectCarryTrafficAndStop();
    void wrongPasswordIsRejectedByTheServer();

private:
    QString fetchProfile();

    std::unique_ptr<TunnelLab> m_lab;
    std::unique_ptr<VpnTestEnvironment> m_env;
    std::shared_ptr<VpnReports> m_states;
    QString m_user;
    QString m_password;
};

void TestE2eTunnel::initTestCase()
{
    if (const QString reason = TunnelLab::unavailableReason(); !reason.isEmpty())
        QSKIP(qPrintable(QStringLiteral("real tunnel test skipped: ") + reason));
    m_lab = std::make_unique<TunnelLab>(QString::fromLocal8Bit(qgetenv("PELORIN_BINARY_DIR")));
    QString why;
    QVERIFY2(m_lab->setUp(&why), qPrintable(why));
    m_env = std::make_unique<VpnTestEnvironment>(
        m_lab->backendUrl(),
        VpnTestEnvironment::Places{m_lab->helpersDirectory(), m_lab->sudoPath(), m_lab->clientTemporaryDirectory()});

    // The device's account, made by the backend and stored by our own provisioning call.
    bool done = false;
    NQIdentityServer::sharedManager().registerVpnApi(
        [&](const QString &user, const QString &password, const QString &error) {
            QVERIFY2(error.isEmpty(), qPrintable(error));
            m_user = user;
            m_password = password;
            done = true;
        });
    QTRY_VERIFY_WITH_TIMEOUT(done, kStepMs);
    QVERIFY(!m_user.isEmpty() && !m_password.isEmpty());
    QCOMPARE(m_env->storage().getVpnCredentials().password, m_password);

    m_states = m_env->recordReports();
}

void TestE2eTunnel::cleanupTestCase()
{
    if (m_env)
        m_env->manager().setOnConnectionStateChange(nullptr);
    m_env.reset();
    m_lab.reset();
}

void TestE2eTunnel::cleanup()
{
    // A test that failed half-way leaves no tunnel behind for the next one.
    if (m_lab && !m_lab->clientProcesses().isEmpty()) {
        m_env->manager().stopVPNConnection();
        QTRY_VERIFY_WITH_TIMEOUT(m_lab->clientProcesses().isEmpty(), kStepMs);
    }
    if (m_env)
        m_env->storage().storeVPNCredentials(m_user, m_password);
}

QString TestE2eTunnel::fetchProfile()
{
    NQVPNManager &vpn = m_env->manager();
    bool listed = false;
    vpn.getCountries([&](const QList<NQVPNCountry> &, const NQErrorOpt &error) { listed = !error; });
    if (!QTest::qWaitFor([&] { return listed; }, kStepMs) || vpn.availableCountries().isEmpty())
        return {};
    NQVPNCountry cluster = vpn.availableCountries().first();
    for (const NQVPNCountry &c : vpn.availableCountries())
        if (c.countryName == QLatin1String("Germany"))
            cluster = c;
    QString profile;
    vpn.getCountryVPNConfig(cluster.countryId, [&](const QString &ovpn, const QString &, const NQErrorOpt &error) {
        profile = error ? QStringLiteral("<error>") : ovpn;
    });
    if (!QTest::qWaitFor([&] { return !profile.isNull(); }, kStepMs) || profile == QLatin1String("<error>"))
        return {};
    cluster.ovpn = profile;
    vpn.setCurrentCountry(cluster);
    return profile;
}

void TestE2eTunnel::connectCarryTrafficAndStop()
{
    LogCapture logs;
    const QString profile = fetchProfile();
    QVERIFY2(profile.contains(QLatin1String("auth-user-pass")), qPrintable(profile));
    const QString server = QLatin1String(TunnelLab::kServerTunnelAddress);
    // Before the tunnel, the server's tunnel address cannot be reached from the client side.
    QVERIFY(!m_lab->ping(server));

    NQVPNManager &vpn = m_env->manager();
    QElapsedTimer timer;
    timer.start();
    vpn.startVPNConnectionWithConfigContent(profile, vpn.currentCountry()->countryName);
    QCOMPARE(m_states->snapshot(), QList<int>{2});
    QTRY_VERIFY2_WITH_TIMEOUT(m_states->snapshot().contains(3), qPrintable(logs.lines().join(QLatin1Char('\n'))),
                              kConnectMs);
    const qint64 connectMs = timer.elapsed();
    QCOMPARE(m_states->snapshot(), (QList<int>{2, 3}));
    QCOMPARE(m_env->storage().getVPNStatus(), 3);
    qInfo("tunnel up %lld ms after start", static_cast<long long>(connectMs));

    // Traffic goes through the tunnel.
    QTRY_VERIFY_WITH_TIMEOUT(m_lab->ping(server), kStepMs);
    QVERIFY(!m_lab->clientProcesses().isEmpty());

    vpn.stopVPNConnection();
    QCOMPARE(m_states->snapshot().mid(0, 4), (QList<int>{2, 3, 5, 1}));
    QCOMPARE(m_env->storage().getVPNStatus(), 1);
    QVERIFY(!vpn.currentCountry());
    QVERIFY(m_env->temporaryEntries().isEmpty());
    QTRY_VERIFY2_WITH_TIMEOUT(m_lab->clientProcesses().isEmpty(),
                              qPrintable(m_lab->clientProcesses().join(QLatin1Char('\n'))), kStepMs);
    QTRY_VERIFY_WITH_TIMEOUT(
        !logs.lines().filter(QStringLiteral("|NQVPNManager| OpenVPN process terminated")).isEmpty(), kStepMs);
    QCOMPARE(m_states->snapshot().last(), 1);
    QVERIFY(!m_lab->ping(server));
}

void TestE2eTunnel::wrongPasswordIsRejectedByTheServer()
{
    LogCapture logs;
    const QString profile = fetchProfile();
    QVERIFY(!profile.isEmpty());
    m_env->storage().storeVPNCredentials(m_user, m_password + QStringLiteral("-wrong"));
    {
        std::lock_guard lock(m_states->mutex);
        m_states->states.clear();
    }
    NQVPNManager &vpn = m_env->manager();
    vpn.startVPNConnectionWithConfigContent(profile, vpn.currentCountry()->countryName);
    // openvpn gives up after the rejection; ovpncli's last line reports the end. The rejection
    // reaches the state (0) unless both lines arrive in one read, which counts as the end (1).
    QTRY_VERIFY2_WITH_TIMEOUT(
        !logs.lines().filter(QStringLiteral("|NQVPNManager| OpenVPN process terminated")).isEmpty(),
        qPrintable(logs.lines().join(QLatin1Char('\n'))), kConnectMs);
    QVERIFY(!logs.lines().filter(QStringLiteral("ovpncli: AUTH_FAILED")).isEmpty());
    const QList<int> states = m_states->snapshot();
    QVERIFY(states == (QList<int>{2, 0, 1}) || states == (QList<int>{2, 1}));
    QCOMPARE(m_env->storage().getVPNStatus(), 1);
    QTRY_VERIFY_WITH_TIMEOUT(m_lab->clientProcesses().isEmpty(), kStepMs);

    vpn.stopVPNConnection();
    QCOMPARE(m_env->storage().getVPNStatus(), 1);
}

QTEST_GUILESS_MAIN(TestE2eTunnel)
#include "tst_e2e_tunnel.moc"
