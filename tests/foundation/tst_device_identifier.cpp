#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/KeychainStore.h"
#include "support/LogCapture.h"

#include <QTemporaryDir>
#include <QtTest>

#include <map>

namespace {

// Secrets in memory, counting the writes.
class MemorySecrets : public SecretBackend {
public:
    std::map<std::pair<QString, QString>, QByteArray> items;
    int writes = 0;

    Result find(const QString &service, const QString &account) override
    {
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
    void cleanup() { AppStorageManager::setSharedManagerForTesting(nullptr); }

    void madeOnceThenKept()
    {
        LogCapture capture;
        const QString first = AppConfig::deviceUniqueID();
        const QString second = AppConfig::deviceUniqueID();
        QCOMPARE(second, first);
        QVERIFY(QRegularExpression(QStringLiteral("^[0-9A-Z]{32}MAC2$")).match(first).hasMatch());
        QCOMPARE(capture.count(QStringLiteral("|AppConfig| Missing device UUID create new: ") + first), 1);
        QCOMPARE(capture.lines().filter(QStringLiteral("|AppConfig|")).size(), 1);
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
};

QTEST_GUILESS_MAIN(TestDeviceIdentifier)
#include "tst_device_identifier.moc"
