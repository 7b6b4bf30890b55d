#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/SecretBackend.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QTemporaryDir>
#include <QTest>

namespace {

// Keeps items in memory, records the calls, and answers chosen statuses.
class FakeBackend : public SecretBackend {
public:
    QMap<QString, QByteArray> items; // "service/account" -> data
    QStringList calls;
    std::optional<int> findStatus, writeStatus, removeStatus;
    QString failureMessage;

    Result find(const QString &service, const QString &account) override
    {
        calls << QStringLiteral("find");
        if (findStatus)
            return answer(*findStatus);
        const QString id = service + QLatin1Char('/') + account;
        if (!items.contains(id))
            return answer(ItemNotFound);
        Result result;
        result.data = items.value(id);
        return result;
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
    Result answer(int status) const
    {
        Result result;
        result.status = status;
        result.message = status == ItemNotFound ? QString() : failureMessage;
        return result;
    }
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

private slots:
    void writePathFollowsTheLookupStatus_data()
    {
        QTest::addColumn<int>("findStatus");
        QTest::addColumn<QString>("path");
        QTest::newRow("found updates") << 0 << QStringLiteral("update");
        QTest::newRow("locked updates") << -25308 << QStringLiteral("update");
        QTest::newRow("missing adds") << -25300 << QStringLiteral("add");
        QTest::newRow("other fails") << -25293 << QString();
    }
    void writePathFollowsTheLookupStatus()
    {
        QFETCH(int, findStatus);
        QFETCH(QString, path);
        auto fake = std::make_shared<FakeBackend>();
        fake->findStatus = findStatus;
        LogCapture log;
        NQErrorOpt error;
        const bool ok =
            KeychainStore(QStringLiteral("svc"), fake).setString(QStringLiteral("v"), QStringLiteral("k"), &error);
        const QStringList expectedCalls =
            path.isEmpty() ? QStringList{QStringLiteral("find")} : QStringList{QStringLiteral("find"), path};
        QCOMPARE(fake->calls, expectedCalls);
        QCOMPARE(ok, !path.isEmpty());
        if (path.isEmpty()) {
            expectError(error, -25293, QStringLiteral("Security error has occurred."));
            QCOMPARE(log.lines(), QStringList{QStringLiteral("OSStatus error: [-25293] Security error has occurred.")});
        } else {
            QVERIFY(!error);
            QCOMPARE(fake->items.value(QStringLiteral("svc/k")), QByteArray("v"));
        }
    }

    void failedWriteIsASecurityErrorWithTheSystemText()
    {
        auto fake = std::make_shared<FakeBackend>();
        fake->items.insert(QStringLiteral("svc/username"), "old");
        fake->writeStatus = SecretBackend::InteractionNotAllowed;
        fake->failureMessage = QStringLiteral("Cannot unlock the keyring.");
        KeychainStore store(QStringLiteral("svc"), fake);
        LogCapture log;
        NQErrorOpt error;
        QVERIFY(!store.setString(QStringLiteral("new"), QStringLiteral("username"), &error));
        expectError(error, -25308, QStringLiteral("Cannot unlock the keyring."));
        QCOMPARE(log.lines(), QStringList{QStringLiteral("OSStatus error: [-25308] Cannot unlock the keyring.")});
        fake->writeStatus.reset();
        QCOMPARE(store.stringForKey(QStringLiteral("username")), QStringLiteral("old"));
    }

    void argumentConversionAndUnexpectedErrors()
    {
        auto fake = std::make_shared<FakeBackend>();
        KeychainStore store(QStringLiteral("svc"), fake);
        LogCapture log;
        NQErrorOpt error;

        QVERIFY(!store.setString(QStringLiteral("v"), QString(), &error));
        expectError(error, 1, QStringLiteral("the key must not to be nil"));
        QVERIFY(store.stringForKey(QString(), &error).isNull());
        expectError(error, 1, QStringLiteral("the key must not to be nil"));
        QVERIFY(!store.removeItemForKey(QString(), &error));
        expectError(error, 1, QStringLiteral("the key must not to be nil"));

        // An unpaired surrogate has no UTF-8 form; nothing may be written.
        QString broken = QStringLiteral("ab");
        broken.insert(1, QChar(0xD800));
        QVERIFY(!store.setString(broken, QStringLiteral("k"), &error));
        expectError(error, -67594, QStringLiteral("failed to convert string to data"));

        fake->items.insert(QStringLiteral("svc/k"), QByteArray("\xff\xfe bad", 6));
        QVERIFY(store.stringForKey(QStringLiteral("k"), &error).isNull());
        expectError(error, -67594, QStringLiteral("failed to convert data to string"));

        KeychainStore nameless(QString(), fake);
        QVERIFY(!nameless.setString(QStringLiteral("v"), QStringLiteral("k"), &error));
        expectError(error, -99999, QStringLiteral("Unexpected error has occurred."));
        QList<NQErrorOpt> errors;
        fake->calls.clear();
        QVERIFY(nameless.stringsForKeys({QStringLiteral("k")}, &errors).value(0, QStringLiteral("?")).isNull());
        expectError(errors.value(0), -99999, QStringLiteral("Unexpected error has occurred."));
        QVERIFY(fake->calls.isEmpty());

        QCOMPARE(log.lines(), (QStringList{QStringLiteral("error: [1] the key must not to be nil"),
                                           QStringLiteral("error: [1] the key must not to be nil"),
                                           QStringLiteral("error: [1] the key must not to be nil"),
                                           QStringLiteral("error: [-67594] failed to convert string to data"),
                                           QStringLiteral("error: [-67594] failed to convert data to string"),
                                           QStringLiteral("error: [-99999] Unexpected error has occurred."),
                                           QStringLiteral("error: [-99999] Unexpected error has occurred.")}));
        QCOMPARE(fake->items.size(), 1);
    }

    void missingItemsAndNil()
    {
        auto fake = std::make_shared<FakeBackend>();
        KeychainStore store(QStringLiteral("svc"), fake);
        LogCapture log;
        NQErrorOpt error;
        QVERIFY(store.stringForKey(QStringLiteral("username"), &error).isNull());
        QVERIFY(!error);
        QVERIFY(store.removeItemForKey(QStringLiteral("never"), &error));
        QVERIFY(!error);
        QVERIFY(store.setObject(QStringLiteral("bob"), QStringLiteral("username")));
        QCOMPARE(store.objectForKeyedSubscript(QStringLiteral("username")), QStringLiteral("bob"));
        QVERIFY(store.setObject(QString(), QStringLiteral("username"), &error));
        QVERIFY(!error);
        QVERIFY(store.objectForKeyedSubscript(QStringLiteral("username")).isNull());
        // An empty string is a value, not nil.
        QVERIFY(store.setString(QLatin1String(""), QStringLiteral("username")));
        const QString empty = store.stringForKey(QStringLiteral("username"));
        QVERIFY(!empty.isNull() && empty.isEmpty());
        QVERIFY(log.lines().isEmpty());

        fake->removeStatus = -25293;
        QVERIFY(!store.removeItemForKey(QStringLiteral("username"), &error));
        QCOMPARE(error->code(), -25293);
    }

    // Owner bits plus group and other bits (Qt also reports the current user's bits).
    void fileStoreIsPrivateAtomicAndPersistent()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("app/com.pelorin.vpn.mac/secrets.json"));
        {
            KeychainStore store(QStringLiteral("com.pelorin.vpn.mac"), std::make_shared<FileSecretBackend>(path));
            QVERIFY(store.setString(QStringLiteral("first"), QStringLiteral("password")));
            QVERIFY(store.setString(QStringLiteral("sécond"), QStringLiteral("password")));
            QVERIFY(store.setString(QStringLiteral("u"), QStringLiteral("username")));
            QVERIFY(store.removeItemForKey(QStringLiteral("never-written")));
        }
        QCOMPARE(QFileInfo(path).permissions() & 0xF0FF, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        QCOMPARE(QFileInfo(QFileInfo(path).absolutePath()).permissions() & 0xF0FF,
                 QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QFile written(path);
        QVERIFY(written.open(QIODevice::ReadOnly));
        const QByteArray contents = written.readAll();
        QVERIFY(contents.contains(QStringLiteral("sécond").toUtf8().toBase64()));
        QVERIFY(!contents.contains(QByteArray("first").toBase64()));
        QCOMPARE(QDir(QFileInfo(path).absolutePath()).entryList(QDir::Files),
                 QStringList{QStringLiteral("secrets.json")});

        KeychainStore again(QStringLiteral("com.pelorin.vpn.mac"), std::make_shared<FileSecretBackend>(path));
        QCOMPARE(again.stringForKey(QStringLiteral("password")), QStringLiteral("sécond"));
        QVERIFY(KeychainStore(QStringLiteral("other"), std::make_shared<FileSecretBackend>(path))
                    .stringForKey(QStringLiteral("password"))
                    .isNull());
        QVERIFY(again.setObject(QString(), QStringLiteral("password")));
        QVERIFY(again.stringForKey(QStringLiteral("password")).isNull());
        QCOMPARE(again.stringForKey(QStringLiteral("username")), QStringLiteral("u"));
    }

    void damagedFileStoreIsKeptAsideNotOverwritten()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("secrets.json"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("{\"items\": {\"svc\": trunc");
        file.close();
        LogCapture log;
        KeychainStore store(QStringLiteral("svc"), std::make_shared<FileSecretBackend>(path));
        QVERIFY(store.stringForKey(QStringLiteral("k")).isNull());
        QCOMPARE(log.osTexts(QStringLiteral("KeychainStore")).size(), 1);
        QFile aside(path + QStringLiteral(".corrupt"));
        QVERIFY(aside.open(QIODevice::ReadOnly));
        QCOMPARE(aside.readAll(), QByteArray("{\"items\": {\"svc\": trunc"));
        QVERIFY(store.setString(QStringLiteral("v"), QStringLiteral("k")));
        QCOMPARE(store.stringForKey(QStringLiteral("k")), QStringLiteral("v"));
    }

    void withoutASecretServiceTheFileStoreIsChosenWithAWarning()
    {
        // A bus address nobody listens on: the Secret Service cannot answer.
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/pelorin-test-bus");
        qunsetenv("PELORIN_SECRET_STORE");
        QString reason;
        QVERIFY(!SecretBackend::connectSecretService(&reason));
        QVERIFY(!reason.isEmpty());
        // The keyring helper itself was found and ran: the refusal is the bus's.
        QVERIFY2(!reason.contains(QLatin1String("pelorin-keyring")), qPrintable(reason));

        LogCapture log;
        SecretBackend::setSystemDefaultForTesting(nullptr);
        const auto chosen = SecretBackend::systemDefault();
        QCOMPARE(chosen->name(), QStringLiteral("file"));
        QCOMPARE(SecretBackend::systemDefault(), chosen); // asked once per process
        const QStringList warnings = log.osTexts(QStringLiteral("KeychainStore"));
        QCOMPARE(warnings.size(), 1);
        QVERIFY(warnings.first().startsWith(QStringLiteral("No secret service answers")));
        QCOMPARE(log.osRecords().first().level, OsLog::Level::Error);
        SecretBackend::setSystemDefaultForTesting(nullptr);
    }
};

QTEST_GUILESS_MAIN(TstKeychainStore)
#include "tst_keychain_store.moc"
