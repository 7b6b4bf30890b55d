// KeychainStore and its helper against a real GNOME keyring in a private session bus, and the
// device identifier of whole runs against a locked keyring (its prompts answered through
// KeyringPrompts), one without a default collection and a Secret Service that appears late.
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/KeyringMessage.h"
#include "foundation/KeyringProcessBackend.h"
#include "foundation/SecretQueue.h"
#include "support/KeyringPrompts.h"
#include "support/KeyringSession.h"
#include "support/LogCapture.h"

#include <QCoreApplication>
#include <QTest>

namespace {
const QString kService = QLatin1String(KeyringPrompts::kService);

// What secret-tool lists for our items under `account`: the value of `field` of each.
QStringList listed(const QString &account, const QString &field = QStringLiteral("secret"))
{
    QProcess tool;
    tool.start(QStringLiteral("secret-tool"), {"search", "--all", "service", kService, "account", account});
    tool.waitForFinished(KeyringPrompts::kToolMs);
    QStringList values;
    for (const QString &line : QString::fromUtf8(tool.readAllStandardOutput()).split(QLatin1Char('\n')))
        if (line.startsWith(field + QStringLiteral(" = ")))
            values << line.mid(field.size() + 3);
    return values;
}

// The keyring helper run on `stream`: its answer statuses and exit code (-2: trailing bytes).
std::pair<std::vector<int>, int> runHelper(const std::string &stream)
{
    QProcess helper;
    helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"));
    helper.write(stream.data(), qint64(stream.size()));
    helper.closeWriteChannel();
    if (!helper.waitForFinished(KeyringPrompts::kToolMs) || helper.exitStatus() != QProcess::NormalExit)
        return {{}, -1};
    const std::string output = helper.readAllStandardOutput().toStdString();
    std::string_view rest = output;
    std::vector<int> statuses;
    while (std::optional<KeyringMessage::Answer> answer = KeyringMessage::takeAnswer(rest))
        statuses.push_back(answer->status);
    return {statuses, rest.empty() ? helper.exitCode() : -2};
}

// A new run of the program as far as its secrets go: a fresh settings store and backend choice.
void newRun()
{
    SecretQueue::drain();
    AppStorageManager::setSharedManagerForTesting(nullptr);
    SecretBackend::setSystemDefaultForTesting(nullptr);
}

// The identifiers the label settings, account and server-list requests of one run send.
QStringList identifiersOfOneRun()
{
    return {AppConfig::deviceUniqueID(), AppConfig::deviceUniqueID(), AppConfig::deviceUniqueID()};
}
} // namespace

class TstKeychainKeyring : public QObject {
    Q_OBJECT

    KeyringPrompts m_prompts;
    std::shared_ptr<SecretBackend> m_backend;
    KeychainStore store() const { return KeychainStore(kService, m_backend); }

private slots:
    void initTestCase()
    {
        if (!KeyringSession::isActive())
            QSKIP("dbus-run-session is not available here");
        const QString why = m_prompts.start("test");
        if (why.contains(QLatin1String("not built")))
            QSKIP(qPrintable(why));
        QVERIFY2(why.isEmpty(), qPrintable(why));
        QString reason;
        m_backend = SecretBackend::connectSecretService(&reason);
        QVERIFY2(m_backend, qPrintable(reason));
    }

    void itemsAreRealKeyringItemsKeyedByServiceAndAccount()
    {
        const int startsBefore = dynamic_cast<KeyringProcessBackend &>(*m_backend).helperStarts();
        QVERIFY(m_backend->addLabelled(kService, QStringLiteral("labelled"), "x", QStringLiteral("VPN User Password"))
                    .ok());
        QCOMPARE(listed(QStringLiteral("labelled"), QStringLiteral("label")), QStringList{"VPN User Password"});
        QVERIFY(m_backend->remove(kService, QStringLiteral("labelled")).ok());
        QVERIFY(listed(QStringLiteral("labelled"), QStringLiteral("label")).isEmpty());

        // Writing twice leaves one item with the second value.
        const QString secret = QStringLiteral("pässwörd ✓ 🔑");
        QVERIFY(store().setString(QStringLiteral("first"), QStringLiteral("password")));
        QVERIFY(store().setString(secret, QStringLiteral("password")));
        QCOMPARE(listed(QStringLiteral("password")), QStringList{secret});

        // An item written by another program with the same two attributes is ours too; another
        // service does not see it.
        QVERIFY(KeyringPrompts::store(QStringLiteral("deviceUUID"), "6F1B-UUID"));
        QVERIFY(KeychainStore(QStringLiteral("other.service"), m_backend).stringForKey("deviceUUID").isNull());
        // Several reads are answered in the order asked; a null key never reaches the helper.
        QList<NQErrorOpt> errors;
        QCOMPARE(store().stringsForKeys({"deviceUUID", QString(), "never-written", "password"}, &errors),
                 (QStringList{"6F1B-UUID", QString(), QString(), secret}));
        QVERIFY(errors[1] && errors[1]->code() == KeychainStore::kArgumentErrorCode && !errors[2] && !errors[3]);
        // A user action's requests share one helper (and one Secret Service session).
        QCOMPARE(dynamic_cast<KeyringProcessBackend &>(*m_backend).helperStarts(), startsBefore);

        // The helper answers each request in order, refuses names that are not UTF-8 or hold a
        // NUL and goes on, and stops at a garbled request.
        using namespace KeyringMessage;
        const std::string ping = encode(Request{}).value();
        std::string badNames;
        for (const auto operation : {Operation::Find, Operation::Add, Operation::Remove})
            badNames += encode({operation, kService.toStdString(), "bad\xff", "x"}).value();
        badNames += encode({Operation::Find, std::string("svc\0x", 5), "a", {}}).value();
        const int ok = SecretBackend::Success, bad = SecretBackend::InternalComponent;
        QCOMPARE(runHelper(ping + badNames + ping), std::make_pair(std::vector<int>{ok, bad, bad, bad, bad, ok}, 0));
        QCOMPARE(runHelper(ping + "PKQ1\x09" + ping), std::make_pair(std::vector<int>{ok, bad}, 2));
        QCOMPARE(runHelper({}), std::make_pair(std::vector<int>{bad}, 2));

        // The Secret Service libraries stay out of this process.
        QFile maps(QStringLiteral("/proc/self/maps"));
        const QByteArray mapped = maps.open(QIODevice::ReadOnly) ? maps.readAll() : QByteArray();
        QVERIFY(!mapped.isEmpty() && !mapped.contains("libsecret-1") && !mapped.contains("libgio-2.0"));
    }

    // A run without a Secret Service keeps its secrets in the file; the next run with one moves
    // them in, so both runs send the same identifier.
    void fileSecretsMoveIntoTheSecretServiceOnce()
    {
        const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/pelorin-test-bus");
        newRun();
        LogCapture log;
        const QStringList first = identifiersOfOneRun();
        AppStorageManager::sharedManager().storeVPNCredentials(QStringLiteral("file-user"), QStringLiteral("file-pw"));
        SecretQueue::drain();
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
        QVERIFY(QFile::exists(FileSecretBackend::defaultFilePath()));
        // Chosen once for the run, with a warning.
        QCOMPARE(log.osTexts(QStringLiteral("KeychainStore")).size(), 1);
        QVERIFY(log.osTexts(QStringLiteral("KeychainStore")).first().startsWith("No secret service answers"));
        QCOMPARE(log.osRecords().first().level, OsLog::Level::Error);

        newRun();
        QCOMPARE(identifiersOfOneRun(), first);
        QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().password, QStringLiteral("file-pw"));
        QVERIFY(!QFile::exists(FileSecretBackend::defaultFilePath()));
        QCOMPARE(listed(QStringLiteral("deviceUUID")), QStringList{first.first()});
        QCOMPARE(listed(QStringLiteral("username")), QStringList{"file-user"});
    }

    void lockedKeyringIsUnlockedThroughItsPrompt_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("unlock answered") << QByteArray("ok test");
        QTest::newRow("unlock refused") << QByteArray("cancel");
    }
    void lockedKeyringIsUnlockedThroughItsPrompt()
    {
        QFETCH(QByteArray, answer);
        const bool answered = answer != "cancel";
        QVERIFY(KeyringPrompts::store(QStringLiteral("deviceUUID"), "KEYRING-ID"));
        QVERIFY(KeyringPrompts::lockLogin());

        newRun();
        m_prompts.answerNext(answer);
        const QStringList identifiers = identifiersOfOneRun();
        QCOMPARE(identifiers.count(identifiers.first()), 3);
        QCOMPARE(identifiers.first() == QLatin1String("KEYRING-ID"), answered);
        AppStorageManager::sharedManager().storeVPNCredentials(QStringLiteral("run-user"), QStringLiteral("run-pw"));
        SecretQueue::drain();
        // The run's helper asks once; later requests get the same answer without a prompt.
        QCOMPARE(SecretBackend::systemDefault()->find(kService, QStringLiteral("deviceUUID")).status,
                 answered ? 0 : int(SecretBackend::UserCanceled));
        const NQErrorOpt notKept = AppStorageManager::sharedManager().secretsNotKept();
        QCOMPARE(notKept ? notKept->code() : 0, answered ? 0 : int(SecretBackend::UserCanceled));
        if (answered) // (a locked keyring does not show its secrets)
            QCOMPARE(listed(QStringLiteral("username")), QStringList{"run-user"});

        // In a locked keyring "no such item" is said only once it is open.
        QVERIFY(KeyringPrompts::lockLogin());
        m_prompts.answerNext(answer);
        QCOMPARE(m_backend->find(kService, QStringLiteral("never-written")).status,
                 answered ? int(SecretBackend::ItemNotFound) : int(SecretBackend::UserCanceled));
        QVERIFY(!m_prompts.answerPending());
        QCOMPARE(m_prompts.unexpectedPrompts(), QByteArray()); // one prompt per helper run
    }

    // No default collection and no login keyring: the first write makes one (its password
    // asked through the prompt) and the identifier is kept there.
    void missingDefaultCollectionIsCreated()
    {
        newRun();
        QCOMPARE(KeyringPrompts::run(QStringLiteral("dbus-send"),
                                     {"--session", "--print-reply", "--dest=org.freedesktop.secrets",
                                      "/org/freedesktop/secrets/collection/login",
                                      "org.freedesktop.Secret.Collection.Delete"}),
                 0);
        m_prompts.answerNext("ok new-password");
        const QStringList identifiers = identifiersOfOneRun();
        AppStorageManager::sharedManager().storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        newRun();
        QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().password, QStringLiteral("p"));
        QCOMPARE(listed(QStringLiteral("deviceUUID")), QStringList{identifiers.first()});
        QVERIFY(!m_prompts.answerPending());
        QCOMPARE(m_prompts.unexpectedPrompts(), QByteArray());
    }
};

int main(int argc, char **argv)
{
    KeyringSession::enter(argc, argv);
    QCoreApplication app(argc, argv);
    TstKeychainKeyring test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_keychain_keyring.moc"
