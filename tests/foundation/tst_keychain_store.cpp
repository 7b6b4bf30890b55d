#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/SecretQueue.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QTemporaryDir>
#include <QTest>

namespace {
// Secrets in memory: records the calls and answers chosen statuses.
class FakeSecrets : public SecretBackend {
public:
    QMap<QString, QByteArray> items; // "service/account" -> data
    QStringList calls;
    std::optional<int> findStatus, writeStatus, removeStatus;
    QString failureMessage;

    int writes() const { return int(calls.count(QStringLiteral("add")) + calls.count(QStringLiteral("update"))); }

    Result find(const QString &service, const QString &account) override
    {
        calls << QStringLiteral("find");
        if (findStatus)
            return answer(*findStatus);
        const auto it = items.constFind(service + QLatin1Char('/') + account);
        return it == items.cend() ? answer(ItemNotFound) : Result{Success, *it, {}};
    }
    Result update(const QString &service, const QString &account, const QByteArray &data) override
    {
        calls << QStringLiteral("update");
        return store(service, account, data);
    }
    Result add(const QString &service, const QString &account, const QByteArray &data) override
    {
        calls << QStringLiteral("add");
        return store(service, account, data);
    }
    Result remove(const QString &service, const QString &account) override
    {
        calls << QStringLiteral("remove");
        if (removeStatus)
            return answer(*removeStatus);
        return items.remove(service + QLatin1Char('/') + account) ? Result() : answer(ItemNotFound);
    }
    QString name() const override { return QStringLiteral("fake"); }

private:
    Result store(const QString &service, const QString &account, const QByteArray &data)
    {
        if (writeStatus)
            return answer(*writeStatus);
        items.insert(service + QLatin1Char('/') + account, data);
        return {};
    }
    Result answer(int status) const { return {status, {}, status == ItemNotFound ? QString() : failureMessage}; }
};

void expectError(const NQErrorOpt &error, int code, const QString &message)
{
    QVERIFY(error);
    QCOMPARE(error->domain(), QStringLiteral("com.pelorin.vpn.mac"));
    QCOMPARE(error->code(), code);
    QCOMPARE(error->localizedDescription(), message);
}
} // namespace

class TstKeychainStore : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    std::shared_ptr<FakeSecrets> m_secrets;

private slots:
    // A found or locked item is updated, a missing one added; any other lookup failure is the
    // write's failure, with the store's own text where it gives one.
    void writePathFollowsTheLookupStatus_data()
    {
        QTest::addColumn<int>("findStatus");
        QTest::addColumn<int>("writeStatus");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QString>("log"); // empty: written
        QTest::newRow("found updates") << 0 << 0 << QStringList{"find", "update"} << QString();
        QTest::newRow("locked updates") << -25308 << 0 << QStringList{"find", "update"} << QString();
        QTest::newRow("missing adds") << -25300 << 0 << QStringList{"find", "add"} << QString();
        QTest::newRow("other fails") << -25293 << 0 << QStringList{"find"}
                                     << "OSStatus error: [-25293] Security error has occurred.";
        QTest::newRow("write refused") << 0 << -25308 << QStringList{"find", "update"}
                                       << "OSStatus error: [-25308] Cannot unlock the keyring.";
    }
    void writePathFollowsTheLookupStatus()
    {
        QFETCH(int, findStatus);
        QFETCH(int, writeStatus);
        QFETCH(QStringList, calls);
        QFETCH(QString, log);
        auto fake = std::make_shared<FakeSecrets>();
        fake->findStatus = findStatus;
        if (writeStatus)
            fake->writeStatus = writeStatus;
        fake->failureMessage = findStatus == -25293 ? QString() : QStringLiteral("Cannot unlock the keyring.");
        LogCapture capture;
        NQErrorOpt error;
        QCOMPARE(KeychainStore(QStringLiteral("svc"), fake).setString("v", "k", &error), log.isEmpty());
        QCOMPARE(fake->calls, calls);
        QCOMPARE(capture.lines(), log.isEmpty() ? QStringList() : QStringList{log});
        if (log.isEmpty())
            QCOMPARE(fake->items.value(QStringLiteral("svc/k")), QByteArray("v"));
        else
            expectError(error, findStatus == -25293 ? -25293 : writeStatus, log.section("] ", 1));
    }

    void refusedArgumentsNeverReachTheBackend()
    {
        auto fake = std::make_shared<FakeSecrets>();
        KeychainStore store(QStringLiteral("svc"), fake);
        KeychainStore nameless(QString(), fake);
        LogCapture log;
        NQErrorOpt error;
        QVERIFY(!store.setString(QStringLiteral("v"), QString(), &error));
        expectError(error, 1, QStringLiteral("the key must not to be nil"));
        QVERIFY(store.stringForKey(QString(), &error).isNull() && error);
        QVERIFY(!store.removeItemForKey(QString(), &error) && error);
        // An unpaired surrogate has no UTF-8 form.
        QVERIFY(!store.setString(QStringLiteral("a") + QChar(0xD800) + QStringLiteral("b"), "k", &error));
        expectError(error, -67594, QStringLiteral("failed to convert string to data"));
        QVERIFY(!nameless.setString(QStringLiteral("v"), QStringLiteral("k"), &error));
        expectError(error, -99999, QStringLiteral("Unexpected error has occurred."));
        QList<NQErrorOpt> errors;
        QVERIFY(nameless.stringsForKeys({QStringLiteral("k")}, &errors).value(0, QStringLiteral("?")).isNull());
        expectError(errors.value(0), -99999, QStringLiteral("Unexpected error has occurred."));
        QVERIFY(fake->calls.isEmpty());
        QCOMPARE(log.lines().size(), 6);
        QCOMPARE(log.lines().first(), QStringLiteral("error: [1] the key must not to be nil"));

        fake->items.insert(QStringLiteral("svc/k"), QByteArray("\xff\xfe bad", 6));
        QVERIFY(store.stringForKey(QStringLiteral("k"), &error).isNull());
        expectError(error, -67594, QStringLiteral("failed to convert data to string"));
    }

    void missingItemsAndNil()
    {
        auto fake = std::make_shared<FakeSecrets>();
        KeychainStore store(QStringLiteral("svc"), fake);
        NQErrorOpt error;
        QVERIFY(store.stringForKey(QStringLiteral("username"), &error).isNull());
        QVERIFY(!error);
        QVERIFY(store.removeItemForKey(QStringLiteral("never"), &error));
        QVERIFY(store.setObject(QStringLiteral("bob"), QStringLiteral("username")));
        QCOMPARE(store.objectForKeyedSubscript(QStringLiteral("username")), QStringLiteral("bob"));
        QVERIFY(store.setObject(QString(), QStringLiteral("username"), &error));
        QVERIFY(!error && fake->items.isEmpty());
        // An empty string is a value, not nil.
        QVERIFY(store.setString(QLatin1String(""), QStringLiteral("username")));
        QVERIFY(!store.stringForKey(QStringLiteral("username")).isNull());
        fake->removeStatus = -25293;
        QVERIFY(!store.removeItemForKey(QStringLiteral("username"), &error));
        QCOMPARE(error->code(), -25293);
    }

    void fileStoreIsPrivateAtomicAndPersistent()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("app/com.pelorin.vpn.mac/secrets.json"));
        const auto open = [&](const QString &service) {
            return KeychainStore(service, std::make_shared<FileSecretBackend>(path));
        };
        QVERIFY(open("svc").setString(QStringLiteral("first"), QStringLiteral("password")));
        QVERIFY(open("svc").setString(QStringLiteral("sécond"), QStringLiteral("password")));
        QVERIFY(open("svc").setString(QStringLiteral("u"), QStringLiteral("username")));
        // Owner bits plus group and other bits (Qt also reports the current user's bits).
        QCOMPARE(QFileInfo(path).permissions() & 0xF0FF, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        QCOMPARE(QFileInfo(QFileInfo(path).absolutePath()).permissions() & 0xF0FF,
                 QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QCOMPARE(QDir(QFileInfo(path).absolutePath()).entryList(QDir::Files), QStringList{"secrets.json"});
        QCOMPARE(open("svc").stringForKey(QStringLiteral("password")), QStringLiteral("sécond"));
        QVERIFY(open("other").stringForKey(QStringLiteral("password")).isNull());
        QVERIFY(open("svc").setObject(QString(), QStringLiteral("password")));
        QVERIFY(open("svc").stringForKey(QStringLiteral("password")).isNull());
        QCOMPARE(open("svc").stringForKey(QStringLiteral("username")), QStringLiteral("u"));

        // A damaged file is kept aside, not overwritten.
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("{\"items\": {\"svc\": trunc") > 0);
        file.close();
        LogCapture log;
        QVERIFY(open("svc").stringForKey(QStringLiteral("username")).isNull());
        QCOMPARE(log.osTexts(QStringLiteral("KeychainStore")).size(), 1);
        QFile aside(path + QStringLiteral(".corrupt"));
        QVERIFY(aside.open(QIODevice::ReadOnly));
        QCOMPARE(aside.readAll(), QByteArray("{\"items\": {\"svc\": trunc"));
        QVERIFY(open("svc").setString(QStringLiteral("v"), QStringLiteral("k")));
        QCOMPARE(open("svc").stringForKey(QStringLiteral("k")), QStringLiteral("v"));
    }

    void withoutASecretServiceTheFileStoreIsChosenWithAWarning()
    {
        // A bus address nobody listens on: the Secret Service cannot answer.
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/pelorin-test-bus");
        qunsetenv("PELORIN_SECRET_STORE");
        QString reason;
        QVERIFY(!SecretBackend::connectSecretService(&reason));
        // The keyring helper itself was found and ran: the refusal is the bus's.
        QVERIFY2(!reason.isEmpty() && !reason.contains(QLatin1String("pelorin-keyring")), qPrintable(reason));
        LogCapture log;
        SecretBackend::setSystemDefaultForTesting(nullptr);
        const auto chosen = SecretBackend::systemDefault();
        QCOMPARE(chosen->name(), QStringLiteral("file"));
        QCOMPARE(SecretBackend::systemDefault(), chosen); // asked once per process
        QCOMPARE(log.osTexts(QStringLiteral("KeychainStore")).size(), 1);
        QVERIFY(log.osTexts(QStringLiteral("KeychainStore")).first().startsWith("No secret service answers"));
        QCOMPARE(log.osRecords().first().level, OsLog::Level::Error);
        SecretBackend::setSystemDefaultForTesting(nullptr);
    }

    void init()
    {
        m_secrets = std::make_shared<FakeSecrets>();
        m_secrets->failureMessage = QStringLiteral("The keyring stayed locked.");
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            m_dir.filePath("settings.conf"), KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), m_secrets)));
    }
    void cleanup()
    {
        AppStorageManager::setSharedManagerForTesting(nullptr);
        AppStorageManager::setSecretsNotKeptHandler({});
    }

    void madeOnceThenKept()
    {
        LogCapture capture;
        const QString first = AppConfig::deviceUniqueID();
        QCOMPARE(AppConfig::deviceUniqueID(), first);
        QVERIFY(QRegularExpression(QStringLiteral("^[0-9A-Z]{32}MAC2$")).match(first).hasMatch());
        QCOMPARE(capture.lines().filter("|AppConfig|"),
                 QStringList{"|AppConfig| Missing device UUID create new: " + first});
        SecretQueue::drain();
        QCOMPARE(m_secrets->writes(), 1);
        QCOMPARE(m_secrets->items.value("com.pelorin.vpn.mac/deviceUUID"), first.toUtf8());

        AppStorageManager::sharedManager().storeDeviceUUID(QStringLiteral("legacy-id-from-an-older-build"));
        capture.clear();
        QCOMPARE(AppConfig::deviceUniqueID(), QStringLiteral("legacy-id-from-an-older-build"));
        QVERIFY(capture.lines().filter(QStringLiteral("|AppConfig|")).isEmpty());
    }

    // Locked and not unlocked, or no answer: "no such item" was never said, so nothing is made
    // for keeping; the run gets one identifier of its own and the keychain keeps its item.
    void keychainThatCannotAnswerKeepsItsItemAndTheRunOneIdentifier_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("credentialsFirst");
        QTest::newRow("locked") << int(SecretBackend::InteractionNotAllowed) << false;
        QTest::newRow("unlock refused, credentials read first") << int(SecretBackend::UserCanceled) << true;
        QTest::newRow("helper failed") << int(SecretBackend::InternalComponent) << false;
    }
    void keychainThatCannotAnswerKeepsItsItemAndTheRunOneIdentifier()
    {
        QFETCH(int, status);
        QFETCH(bool, credentialsFirst);
        m_secrets->items.insert(QStringLiteral("com.pelorin.vpn.mac/deviceUUID"), "KEPT-ID");
        m_secrets->findStatus = status;
        QStringList told;
        AppStorageManager::setSecretsNotKeptHandler(
            [&told](const NQError &why) { told << why.localizedDescription(); });
        AppStorageManager &storage = AppStorageManager::sharedManager();
        if (credentialsFirst) {
            QVERIFY(storage.getVpnCredentials().username.isNull());
            QCOMPARE(storage.secretsNotKept()->code(), status);
        }
        LogCapture capture;
        const QString first = AppConfig::deviceUniqueID();
        QString later;
        AppConfig::deviceUniqueID([&later](const QString &identifier) { later = identifier; });
        QTRY_COMPARE(later, first);
        QVERIFY(first != QLatin1String("KEPT-ID"));
        QVERIFY(capture.lines().filter(QStringLiteral("Missing device UUID")).isEmpty());

        storage.storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        QCOMPARE(storage.getVpnCredentials().password, QStringLiteral("p"));
        SecretQueue::drain();
        QCOMPARE(m_secrets->writes(), 0);
        QCOMPARE(m_secrets->items.size(), 1);
        QCOMPARE(storage.secretsNotKept()->code(), status);
        QTRY_COMPARE(told, QStringList{QStringLiteral("The keyring stayed locked.")});
    }
};

QTEST_GUILESS_MAIN(TstKeychainStore)
#include "tst_keychain_store.moc"
