// The keychain store over its backends: add-or-update rules and errors over a fake, the file store,
// a run's device identifier, the keyring helper's messages and process (fakes are shell scripts).
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/KeyringMessage.h"
#include "foundation/KeyringProcessBackend.h"
#include "support/Files.h"
#include "support/LogCapture.h"

#include <QFileInfo>
#include <QMap>
#include <QTemporaryDir>
#include <QTest>

using namespace KeyringMessage;
using namespace std::chrono_literals;

namespace {
const QString kService = QStringLiteral("com.pelorin.vpn.mac");
const std::string kBinarySecret("p\0ss\xff\xfe w\xc3\xb6rd", 13);
const Request kRequest{Operation::Update, "com.pelorin.vpn.mac", "us\xc3\xa9r", kBinarySecret};
const Answer kAnswer{SecretBackend::InteractionNotAllowed, "The keyring is locked.", kBinarySecret};

// Secrets in memory: records the calls and answers chosen statuses.
class FakeSecrets : public SecretBackend {
public:
    QMap<QString, QByteArray> items; // "service/account" -> data
    QStringList calls;
    QMap<QString, int> failing; // call -> the status it answers
    QString failureMessage;

    Result find(const QString &s, const QString &a) override { return call("find", s, a); }
    Result update(const QString &s, const QString &a, const QByteArray &d) override { return call("update", s, a, d); }
    Result add(const QString &s, const QString &a, const QByteArray &d) override { return call("add", s, a, d); }
    Result remove(const QString &s, const QString &a) override { return call("remove", s, a); }
    QString name() const override { return QStringLiteral("fake"); }

private:
    Result call(const QString &operation, const QString &service, const QString &account, const QByteArray &data = {})
    {
        calls << operation;
        const QString key = service + QLatin1Char('/') + account;
        if (failing.contains(operation))
            return answer(failing.value(operation));
        if (operation == QLatin1String("find"))
            return items.contains(key) ? Result{Success, items.value(key), {}} : answer(ItemNotFound);
        if (operation == QLatin1String("remove"))
            return items.remove(key) ? Result() : answer(ItemNotFound);
        items.insert(key, data);
        return {};
    }
    Result answer(int status) const { return {status, {}, status == ItemNotFound ? QString() : failureMessage}; }
};

void expectError(const NQErrorOpt &error, int code, const QString &message)
{
    QVERIFY(error);
    QCOMPARE(error->domain(), kService);
    QCOMPARE(error->code(), code);
    QCOMPARE(error->localizedDescription(), message);
}

// An executable shell script in `dir`; its path.
QString writeHelper(const QTemporaryDir &dir, const QByteArray &body)
{
    QFile script(dir.filePath(QStringLiteral("pelorin-keyring")));
    if (!script.open(QIODevice::WriteOnly) || script.write("#!/bin/sh\n" + body + "\n") < 0)
        return {};
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return script.fileName();
}

} // namespace

class TstKeychainStore : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    std::shared_ptr<FakeSecrets> m_secrets;

private slots:
    void init()
    {
        m_secrets = std::make_shared<FakeSecrets>();
        AppStorageManager::setSharedManagerForTesting(
            std::make_unique<AppStorageManager>(m_dir.filePath("settings.conf"), KeychainStore(kService, m_secrets)));
    }
    void cleanup() { AppStorageManager::setSharedManagerForTesting(nullptr); }

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
        m_secrets->failing.insert(QStringLiteral("find"), findStatus);
        if (writeStatus)
            m_secrets->failing.insert(QStringLiteral("update"), writeStatus);
        m_secrets->failureMessage = findStatus == -25293 ? QString() : QStringLiteral("Cannot unlock the keyring.");
        LogCapture capture;
        NQErrorOpt error;
        QCOMPARE(KeychainStore(QStringLiteral("svc"), m_secrets).setString("v", "k", &error), log.isEmpty());
        QCOMPARE(m_secrets->calls, calls);
        QCOMPARE(capture.lines(), log.isEmpty() ? QStringList() : QStringList{log});
        if (log.isEmpty())
            QCOMPARE(m_secrets->items.value(QStringLiteral("svc/k")), QByteArray("v"));
        else
            expectError(error, findStatus == -25293 ? -25293 : writeStatus, log.section("] ", 1));
    }

    void refusedArgumentsMissingItemsAndNil()
    {
        KeychainStore store(QStringLiteral("svc"), m_secrets);
        KeychainStore nameless(QString(), m_secrets);
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
        QCOMPARE(log.lines().size(), 6);

        m_secrets->items.insert(QStringLiteral("svc/k"), QByteArray("\xff\xfe bad", 6));
        QVERIFY(store.stringForKey(QStringLiteral("k"), &error).isNull());
        expectError(error, -67594, QStringLiteral("failed to convert data to string"));

        // Missing is no error; an empty string is a value, not nil.
        QVERIFY(store.stringForKey(QStringLiteral("username"), &error).isNull() && !error);
        QVERIFY(store.removeItemForKey(QStringLiteral("never"), &error));
        QVERIFY(store.setString(QLatin1String(""), QStringLiteral("username")));
        QVERIFY(!store.objectForKeyedSubscript(QStringLiteral("username")).isNull());
        m_secrets->failing.insert(QStringLiteral("remove"), -25293);
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
        QCOMPARE(open("svc").stringForKey(QStringLiteral("password")), QStringLiteral("sécond"));
        QVERIFY(open("other").stringForKey(QStringLiteral("password")).isNull());
        QVERIFY(open("svc").setObject(QString(), QStringLiteral("password")));
        QVERIFY(open("svc").stringForKey(QStringLiteral("password")).isNull());
        QCOMPARE(open("svc").stringForKey(QStringLiteral("username")), QStringLiteral("u"));

        // A damaged file is kept aside, not overwritten.
        QVERIFY(writeFile(path, "{\"items\": {\"svc\": trunc"));
        LogCapture log;
        QVERIFY(open("svc").stringForKey(QStringLiteral("username")).isNull());
        QCOMPARE(log.osTexts(QStringLiteral("KeychainStore")).size(), 1);
        QCOMPARE(contentOf(path + QStringLiteral(".corrupt")), "{\"items\": {\"svc\": trunc");
    }

    // A missing identifier is made, said once and kept.
    void missingIdentifierIsMadeOnce()
    {
        LogCapture capture;
        const QString made = AppConfig::deviceUniqueID();
        QCOMPARE(AppConfig::deviceUniqueID(), made);
        QCOMPARE(capture.lines().filter("|AppConfig|"),
                 QStringList{"|AppConfig| Missing device UUID create new: " + made});
    }

    // Credentials the keychain cannot answer stop it keeping the run's secrets.
    void unansweredCredentialsStopKeepingSecrets()
    {
        m_secrets->failing.insert(QStringLiteral("find"), SecretBackend::UserCanceled);
        AppStorageManager &storage = AppStorageManager::sharedManager();
        QVERIFY(storage.getVpnCredentials().username.isNull());
        const NQErrorOpt notKept = storage.secretsNotKept();
        QVERIFY(notKept && notKept->code() == SecretBackend::UserCanceled);
    }

    // The helper's messages: a cut one waits for more; an unknown, overlong or the other side's
    // one is refused at once.
    void keyringMessages()
    {
        const std::string request = encode(kRequest).value();
        const std::string answer = encode(kAnswer).value();
        const std::optional<Answer> back = decodeAnswer(answer);
        QVERIFY(back && back->status == kAnswer.status && back->message == kAnswer.message);
        QCOMPARE(back->secret, kBinarySecret);

        // What reading the front of `bytes` does; nothing is consumed unless a message is taken.
        const auto read = [](std::string_view bytes, bool asRequest) {
            const std::string_view before = bytes;
            bool incomplete = false;
            if (asRequest ? bool(takeRequest(bytes, &incomplete)) : bool(takeAnswer(bytes, &incomplete)))
                return QStringLiteral("taken");
            if (bytes.data() != before.data() || bytes.size() != before.size())
                return QStringLiteral("consumed");
            return incomplete ? QStringLiteral("wait") : QStringLiteral("refused");
        };
        for (size_t cut = 0; cut < request.size(); ++cut)
            QCOMPARE(read(std::string_view(request).substr(0, cut), true), QStringLiteral("wait"));
        for (const int unknown : {0, int(Operation::AddLabelled) + 1}) {
            std::string changed = request;
            changed[4] = char(unknown);
            QCOMPARE(read(changed, true), QStringLiteral("refused"));
        }
        QCOMPARE(read(answer, true), QStringLiteral("refused"));
        QCOMPARE(read(request, false), QStringLiteral("refused"));
        // A length past the limit is refused before anything is allocated for it.
        QCOMPARE(read(answer.substr(0, 8) + "\xff\xff\xff\xff" + std::string(16, 'a'), false),
                 QStringLiteral("refused"));
        Request tooBig = kRequest;
        tooBig.secret = std::string(size_t(kMaxFieldBytes) + 1, 'x');
        QVERIFY(!encode(tooBig));
    }

    // A helper that left for want of requests just as one came read none of them: it is
    // started again and asked again, once.
    void helperThatLeftIdleIsStartedAgain()
    {
        QTemporaryDir dir;
        const QByteArray left = QFile::encodeName(dir.filePath(QStringLiteral("left")));
        const QByteArray answer = "printf 'PKA1" + QByteArray("\\000").repeated(11) + "\\001v'"; // Success, "v"
        KeyringProcessBackend backend(writeHelper(dir, "if [ -e '" + left + "' ]; then " + answer +
                                                           "; cat > /dev/null; else touch '" + left + "'; exit " +
                                                           QByteArray::number(kHelperIdleExitCode) + "; fi"));
        const SecretBackend::Result result = backend.find(QStringLiteral("s"), QStringLiteral("a"));
        QCOMPARE(result.status, int(SecretBackend::Success));
        QCOMPARE(result.data, QByteArray("v"));
        QCOMPARE(backend.helperStarts(), 2);
    }

    // A missing helper is NotAvailable; one that crashes, hangs or answers garbage is
    // InternalComponent. Either way the message names the file.
    void brokenHelpers_data()
    {
        QTest::addColumn<QByteArray>("body"); // null: no helper
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("says");
        const int internal = SecretBackend::InternalComponent;
        QTest::newRow("missing") << QByteArray() << int(SecretBackend::NotAvailable) << QStringLiteral("is missing");
        QTest::newRow("garbage") << QByteArray("echo hello; cat > /dev/null") << internal
                                 << QStringLiteral("could not be read");
        QTest::newRow("half an answer, exit 3")
            << QByteArray("printf 'PKA1\\000\\000\\000\\000\\000\\000\\000\\011loc'; exit 3") << internal
            << QStringLiteral("could not be read (exit code 3)");
        QTest::newRow("crash") << QByteArray("kill -SEGV $$") << internal << QStringLiteral("stopped unexpectedly");
        QTest::newRow("hang") << QByteArray("exec sleep 30") << internal
                              << QStringLiteral("did not answer within 0.3 s");
    }
    void brokenHelpers()
    {
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, says);
        QTemporaryDir dir;
        const QString path = body.isNull() ? dir.filePath(QStringLiteral("pelorin-keyring")) : writeHelper(dir, body);
        KeyringProcessBackend backend(path, 300ms);
        for (const SecretBackend::Result &result : backend.findAll(QStringLiteral("s"), {"a", "b"})) {
            QCOMPARE(result.status, status);
            QVERIFY2(result.message.contains(says) && result.message.contains(path), qPrintable(result.message));
        }
        if (body.isNull()) { // the product looks for it among the helpers, and says which file it missed
            qputenv("PELORIN_HELPERS_DIR", QFile::encodeName(dir.path()));
            QString reason;
            QVERIFY(!SecretBackend::connectSecretService(&reason));
            qunsetenv("PELORIN_HELPERS_DIR");
            QVERIFY2(reason.contains(path), qPrintable(reason));
        }
    }
};

QTEST_GUILESS_MAIN(TstKeychainStore)
#include "tst_keychain_store.moc"
