// The requests that carry the device identifier never wait for the keychain on the caller's
// (the window's) thread: a locked keyring's unlock prompt may keep that read waiting.
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "foundation/SecretQueue.h"
#include "support/VpnTestEnvironment.h"

#include <QDeadlineTimer>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>

namespace {
// No item ever; counts the look-ups during which the main thread could not run an event
// (it was waiting for this answer, as it would wait for an unlock prompt).
class WatchedSecrets : public SecretBackend {
public:
    std::atomic<int> finds = 0;
    std::atomic<int> findsBlockingTheMainThread = 0;
    Result find(const QString &, const QString &) override
    {
        ++finds;
        auto ran = std::make_shared<std::atomic<bool>>(false);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [ran] { *ran = true; }, Qt::QueuedConnection);
        const QDeadlineTimer limit(5000);
        while (!*ran && !limit.hasExpired())
            QThread::msleep(5);
        if (!*ran)
            ++findsBlockingTheMainThread;
        return {ItemNotFound, {}, {}};
    }
    Result update(const QString &, const QString &, const QByteArray &) override { return {ItemNotFound, {}, {}}; }
    Result add(const QString &, const QString &, const QByteArray &) override { return {}; }
    Result remove(const QString &, const QString &) override { return {}; }
    QString name() const override { return QStringLiteral("watched"); }
};
} // namespace

class TestVpnIdentifierThread : public QObject {
    Q_OBJECT
private slots:
    void requestsReadTheIdentifierOffTheCallersThread_data()
    {
        QTest::addColumn<QString>("request");
        for (const char *name : {"server list", "profile", "account"})
            QTest::newRow(name) << QString::fromLatin1(name);
    }
    void requestsReadTheIdentifierOffTheCallersThread()
    {
        QFETCH(QString, request);
        VpnTestEnvironment env;
        auto secrets = std::make_shared<WatchedSecrets>();
        AppStorageManager::setSharedManagerForTesting(
            std::make_unique<AppStorageManager>(env.root() + QStringLiteral("/watched.conf"),
                                                KeychainStore(QStringLiteral("com.pelorin.vpn.test"), secrets)));
        bool done = false;
        if (request == QLatin1String("server list"))
            env.manager().getCountries([&](const QList<NQVPNCountry> &, const NQErrorOpt &) { done = true; });
        else if (request == QLatin1String("profile"))
            env.manager().getCountryVPNConfig(
                7, [&](const QString &, const QString &, const NQErrorOpt &) { done = true; });
        else
            NQIdentityServer::sharedManager().registerVpnApi(
                [&](const QString &, const QString &, const QString &) { done = true; });
        QTRY_VERIFY_WITH_TIMEOUT(done, 20000);
        SecretQueue::drain();
        QVERIFY(secrets->finds > 0);
        QCOMPARE(secrets->findsBlockingTheMainThread.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestVpnIdentifierThread)
#include "tst_vpn_identifier_thread.moc"
