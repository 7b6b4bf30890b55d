#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/KeychainStore.h"
#include "foundation/SecretQueue.h"
#include "support/LogCapture.h"

#include <QTemporaryDir>
#include <QtTest>

#include <map>

namespace {

// Secrets in memory, counting the writes; every find answers `findStatus` when set.
class MemorySecrets : public SecretBackend {
public:
    std::map<std::pair<QString, QString>, QByteArray> items;
    int writes = 0;
    std::optional<int> findStatus;

    Result find(const QString &service, const QString &account) override
    {
        if (findStatus)
            return {*findStatus, {}, QStringLiteral("The keyring stayed locked.")};
        const auto it = items.find({service, account});
        if (it == items.end())
            return {ItemNotFound, {}, {}};
        return {Success, it->second, {}};
    }
    Result update(const QString &service, const QString &account, const QByteArray &data) override
    {
        const auto it = items.find({service, account});
        if (it == items.end())
            return {ItemNotFound, {}, {}};
        ++writes;
        it->second = data;
        return {};
    }
    Result add(const QString &service, const QString &account, const QByteArray &data) override
    {
        ++writes;
        items[{service, account}] = data;
        return {};
    }
    Result remove(const QString &service, const QString &account) override
    {
        return items.erase({service, account}) ? Result{} : Result{ItemNotFound, {}, {}};
    }
    QString name() const override { return QStringLiteral("memory"); }
};

} // namespace

class TestDeviceIdentifier : public QObject {
    Q_OBJECT
private:
    QTemporaryDir m_dir;
    std::shared_ptr<MemorySecrets> m_secrets;

private slots:
    void init()
    {
        m_secrets = std::make_shared<MemorySecrets>();
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            m_dir.filePath("settings.conf"), KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), m_secrets)));
    }
    void cleanup()
    {
        AppStorageManager::setSharedManagerForTesting(nullptr);
        m_secrets->findStatus.reset();
    }

    void madeOnceThenKept()
    {
        LogCapture capture;
        const QString first = AppConfig::deviceUniqueID();
        const QString second = AppConfig::deviceUniqueID();
        QCOMPARE(second, first);
        QVERIFY(QRegularExpression(QStringLiteral("^[0-9A-Z]{32}MAC2$")).match(first).hasMatch());
        QCOMPARE(capture.count(QStringLiteral("|AppConfig| Missing device UUID create new: ") + first), 1);
        QCOMPARE(capture.lines().filter(QStringLiteral("|AppConfig|")).size(), 1);
        SecretQueue::drain();
        QCOMPARE(m_secrets->writes, 1);
        QCOMPARE(AppStorageManager::sharedManager().deviceUUID(), first);
    }

    void storedIdentifierIsReturnedUnchanged()
    {
        AppStorageManager::sharedManager().storeDeviceUUID(QStringLiteral("legacy-id-from-an-older-build"));
        LogCapture capture;
        QCOMPARE(AppConfig::deviceUniqueID(), QStringLiteral("legacy-id-from-an-older-build"));
        QVERIFY(capture.lines().filter(QStringLiteral("|AppConfig|")).isEmpty());
    }

    // Locked and not unlocked, or no answer: "no such item" was never said, so nothing is made
    // for keeping; the run gets one identifier of its own and the keychain keeps its item.
    void keychainThatCannotAnswerKeepsItsItemAndTheRunOneIdentifier_data()
    {
        QTest::addColumn<int>("status");
        QTest::newRow("locked") << int(SecretBackend::InteractionNotAllowed);
        QTest::newRow("unlock refused") << int(SecretBackend::UserCanceled);
        QTest::newRow("helper failed") << int(SecretBackend::InternalComponent);
    }
    void keychainThatCannotAnswerKeepsItsItemAndTheRunOneIdentifier()
    {
        QFETCH(int, status);
        m_secrets->items[{QStringLiteral("com.pelorin.vpn.mac"), QStringLiteral("deviceUUID")}] = "KEPT-ID";
        m_secrets->findStatus = status;
        QStringList told;
        AppStorageManager::setSecretsNotKeptHandler(
            [&told](const NQError &why) { told << why.localizedDescription(); });
        LogCapture capture;
        const QString first = AppConfig::deviceUniqueID();
        QString later;
        AppConfig::deviceUniqueID([&later](const QString &identifier) { later = identifier; });
        QTRY_COMPARE(later, first);
        QCOMPARE(AppConfig::deviceUniqueID(), first);
        QVERIFY(first != QLatin1String("KEPT-ID"));
        QCOMPARE(capture.count(QStringLiteral("|AppConfig| Missing device UUID create new: ") + first), 0);

        AppStorageManager &storage = AppStorageManager::sharedManager();
        storage.storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        QCOMPARE(storage.getVpnCredentials().password, QStringLiteral("p"));
        SecretQueue::drain();
        QCOMPARE(m_secrets->writes, 0);
        QCOMPARE(m_secrets->items.size(), size_t(1));
        QCOMPARE(storage.secretsNotKept()->code(), status);
        QTRY_COMPARE(told, QStringList{QStringLiteral("The keyring stayed locked.")});
        AppStorageManager::setSecretsNotKeptHandler({});
    }
};

QTEST_GUILESS_MAIN(TestDeviceIdentifier)
#include "tst_device_identifier.moc"
