// KeychainStore against a real GNOME keyring in a private session bus (see KeyringSession.h),
// and the device identifier of whole runs against a locked keyring, a keyring without a default
// collection and a Secret Service that appears after a run without one. The keyring's password
// prompts go to gcr's mock prompter (pelorin-test-prompter), which answers or dismisses them.
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/KeyringMessage.h"
#include "foundation/KeyringProcessBackend.h"
#include "foundation/SecretQueue.h"
#include "support/KeyringSession.h"
#include "support/LogCapture.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {
const QString kService = QStringLiteral("com.pelorin.vpn.mac");

// secret-tool <command> service <ours> account <account> [...]: its standard output, null when it failed.
QString secretTool(const QString &command, const QString &account, const QByteArray &input = {},
                   const QStringList &options = {})
{
    QProcess process;
    process.start(QStringLiteral("secret-tool"),
                  QStringList{command} + options + QStringList{"service", kService, "account", account});
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(15000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return {};
    return QString::fromUtf8(process.readAllStandardOutput()) + QStringLiteral("");
}

QString lookup(const QString &account)
{
    return secretTool(QStringLiteral("lookup"), account);
}

// One "[/<item path>]" header line per item.
int itemCount(const QString &account)
{
    const QStringList lines =
        secretTool(QStringLiteral("search"), account, {}, {QStringLiteral("--all")}).split(QLatin1Char('\n'));
    return int(std::count_if(lines.cbegin(), lines.cend(),
                             [](const QString &line) { return line.startsWith("[/") && line.endsWith(']'); }));
}

bool lockLogin()
{
    return QProcess::execute(QStringLiteral("dbus-send"),
                             {"--session", "--print-reply", "--dest=org.freedesktop.secrets",
                              "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.Lock",
                              "array:objpath:/org/freedesktop/secrets/collection/login"}) == 0;
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

    std::shared_ptr<SecretBackend> m_backend;
    QProcess m_prompter;
    QString m_prompterName;
    KeychainStore store() const { return KeychainStore(kService, m_backend); }

    // gnome-keyring-daemon in place of the running one, sending its prompts to our prompter;
    // `password` unlocks (and creates) the login keyring, none leaves it locked.
    bool restartDaemon(const QByteArray &password)
    {
        QProcess daemon;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("GNOME_KEYRING_TEST_PROMPTER"), m_prompterName);
        daemon.setProcessEnvironment(environment);
        daemon.start(QStringLiteral("gnome-keyring-daemon"),
                     QStringList{"--replace", "--components=secrets"} +
                         (password.isNull() ? QStringList() : QStringList{"--unlock"}));
        daemon.write(password);
        daemon.closeWriteChannel();
        if (!daemon.waitForFinished(15000) || daemon.exitCode() != 0)
            return false;
        // Answers once the new daemon owns the name.
        for (QDeadlineTimer deadline(10000); !deadline.hasExpired(); QThread::msleep(50))
            if (QProcess::execute(QStringLiteral("secret-tool"), {"search", "x", "y"}) >= 0)
                return true;
        return false;
    }

    void answerNextPrompt(const QByteArray &command)
    {
        m_prompter.write(command + '\n');
        m_prompter.waitForBytesWritten(5000);
    }

    // True while an answer given to the prompter has not been used by a prompt.
    bool answerPending()
    {
        answerNextPrompt("pending");
        return !m_prompter.waitForReadyRead(5000) || m_prompter.readLine().trimmed() == "1";
    }

    // Prompts that came with no answer given (gcr's mock says so on its error output).
    QByteArray unexpectedPrompts()
    {
        const QByteArray errors = m_prompter.readAllStandardError();
        return errors.contains("not expected") ? errors : QByteArray();
    }

private slots:
    void initTestCase()
    {
        if (!KeyringSession::isActive())
            QSKIP("dbus-run-session / gnome-keyring-daemon are not available here");
        QString reason;
        m_backend = SecretBackend::connectSecretService(&reason);
        QVERIFY2(m_backend, qPrintable(reason));
    }

    void cleanupTestCase()
    {
        m_backend.reset();
        newRun();
        if (m_prompter.state() == QProcess::Running) {
            m_prompter.closeWriteChannel();
            if (!m_prompter.waitForFinished(5000))
                m_prompter.kill();
        }
    }

    void itemsAreRealKeyringItemsKeyedByServiceAndAccount()
    {
        QVERIFY(m_backend->addLabelled(kService, QStringLiteral("labelled"), "x", QStringLiteral("VPN User Password"))
                    .ok());
        QVERIFY(
            secretTool("search", "labelled", {}, {"--all"}).contains(QStringLiteral("label = VPN User Password\n")));
        QVERIFY(m_backend->remove(kService, QStringLiteral("labelled")).ok());
        QCOMPARE(itemCount(QStringLiteral("labelled")), 0);

        // Writing twice leaves one item with the second value.
        const QString secret = QStringLiteral("pässwörd ✓ 🔑");
        QVERIFY(store().setString(QStringLiteral("first"), QStringLiteral("password")));
        QVERIFY(store().setString(secret, QStringLiteral("password")));
        QCOMPARE(itemCount(QStringLiteral("password")), 1);
        QCOMPARE(lookup(QStringLiteral("password")), secret);

        // An item written by another program with the same two attributes is ours too; another
        // service does not see it.
        QVERIFY(!secretTool("store", "deviceUUID", "6F1B-UUID", {"--label=by hand"}).isNull());
        QCOMPARE(store().stringForKey(QStringLiteral("deviceUUID")), QStringLiteral("6F1B-UUID"));
        QVERIFY(KeychainStore(QStringLiteral("other.service"), m_backend).stringForKey("deviceUUID").isNull());

        // The helper refuses names that are not UTF-8, or hold a NUL, and goes on.
        std::string stream;
        for (const auto operation :
             {KeyringMessage::Operation::Find, KeyringMessage::Operation::Add, KeyringMessage::Operation::Remove})
            stream += KeyringMessage::encode({operation, kService.toStdString(), "bad\xff", "x"}).value();
        stream += KeyringMessage::encode({KeyringMessage::Operation::Find, std::string("svc\0x", 5), "a", {}}).value();
        QProcess helper;
        helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"));
        helper.write(stream.data(), qint64(stream.size()));
        helper.closeWriteChannel();
        QVERIFY(helper.waitForFinished() && helper.exitStatus() == QProcess::NormalExit && helper.exitCode() == 0);
        const std::string output = helper.readAllStandardOutput().toStdString();
        std::string_view rest = output;
        for (int i = 0; i < 4; ++i)
            QCOMPARE(KeyringMessage::takeAnswer(rest).value_or(KeyringMessage::Answer{}).status,
                     int(SecretBackend::InternalComponent));
        QVERIFY(rest.empty());

        // The Secret Service libraries stay out of this process.
        QFile maps(QStringLiteral("/proc/self/maps"));
        QVERIFY(maps.open(QIODevice::ReadOnly));
        const QByteArray mapped = maps.readAll();
        QVERIFY(!mapped.isEmpty() && !mapped.contains("libsecret-1") && !mapped.contains("libgio-2.0"));
    }

    void settingsStoreKeepsItsSecretsInTheKeyring()
    {
        const int startsBefore = dynamic_cast<KeyringProcessBackend &>(*m_backend).helperStarts();
        QTemporaryDir dir;
        AppStorageManager manager(dir.filePath(QStringLiteral("settings.conf")), store());
        manager.storeVPNCredentials(QStringLiteral("u-1"), QStringLiteral("p-1"));
        manager.removeAppStorage();
        QCOMPARE(manager.getVpnCredentials().password, QStringLiteral("p-1"));
        SecretQueue::drain();
        QCOMPARE(lookup(QStringLiteral("password")), QStringLiteral("p-1"));
        // One helper run answers several reads in the order asked.
        const std::vector<SecretBackend::Result> found = m_backend->findAll(
            kService, {QStringLiteral("password"), QStringLiteral("never-written"), QStringLiteral("username")});
        QCOMPARE(found.size(), size_t(3));
        QCOMPARE(found[0].data, QByteArray("p-1"));
        QCOMPARE(found[1].status, int(SecretBackend::ItemNotFound));
        QCOMPARE(found[2].data, QByteArray("u-1"));
        manager.removeVpnCredentials();
        SecretQueue::drain();
        QCOMPARE(itemCount(QStringLiteral("password")), 0);
        // A user action's requests share one helper (and one Secret Service session).
        QCOMPARE(dynamic_cast<KeyringProcessBackend &>(*m_backend).helperStarts(), startsBefore);
    }

    // A run without a Secret Service keeps its secrets in the file; the next run with one moves
    // them in, so both runs (and every later one) send the same identifier.
    void fileSecretsMoveIntoTheSecretServiceOnce()
    {
        for (const char *account : {"deviceUUID", "username", "password"})
            secretTool(QStringLiteral("clear"), QLatin1String(account));
        const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/pelorin-test-bus");
        newRun();
        const QStringList first = identifiersOfOneRun();
        AppStorageManager::sharedManager().storeVPNCredentials(QStringLiteral("file-user"), QStringLiteral("file-pw"));
        SecretQueue::drain();
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
        QCOMPARE(first.count(first.first()), 3);
        QVERIFY(QFile::exists(FileSecretBackend::defaultFilePath()));

        for (int later = 0; later < 2; ++later) {
            newRun();
            QCOMPARE(identifiersOfOneRun(), first);
            QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().password, QStringLiteral("file-pw"));
            QVERIFY(!QFile::exists(FileSecretBackend::defaultFilePath()));
            QCOMPARE(SecretBackend::systemDefault()->name(), QStringLiteral("secret-service"));
        }
        QCOMPARE(lookup(QStringLiteral("deviceUUID")), first.first());
        QCOMPARE(lookup(QStringLiteral("username")), QStringLiteral("file-user"));
        QCOMPARE(itemCount(QStringLiteral("deviceUUID")), 1);
    }

    // From here on the daemon sends its prompts to the test's prompter.
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
        if (m_prompterName.isEmpty()) {
            const QString prompter =
                qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/tests/support/pelorin-test-prompter");
            if (!QFileInfo(prompter).isExecutable())
                QSKIP("pelorin-test-prompter was not built (gcr's development files are missing)");
            m_prompter.start(prompter, QStringList());
            QVERIFY(m_prompter.waitForReadyRead(10000));
            m_prompterName = QString::fromUtf8(m_prompter.readLine().trimmed());
        }
        QVERIFY(restartDaemon("test"));
        QVERIFY(!secretTool("store", "deviceUUID", "KEYRING-ID", {"--label=by hand"}).isNull());
        QVERIFY(!secretTool("store", "username", "keyring-user", {"--label=by hand"}).isNull());
        QVERIFY(lockLogin());

        newRun();
        answerNextPrompt(answer);
        LogCapture log;
        const QStringList identifiers = identifiersOfOneRun();
        QCOMPARE(identifiers.count(identifiers.first()), 3);
        QCOMPARE(identifiers.first() == QLatin1String("KEYRING-ID"), answered);
        AppStorageManager::sharedManager().storeVPNCredentials(QStringLiteral("run-user"), QStringLiteral("run-pw"));
        QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().username, QStringLiteral("run-user"));
        SecretQueue::drain();
        QVERIFY(!answerPending());
        QCOMPARE(unexpectedPrompts(), QByteArray()); // one prompt for the whole run
        const NQErrorOpt notKept = AppStorageManager::sharedManager().secretsNotKept();
        QCOMPARE(notKept ? notKept->code() : 0, answered ? 0 : int(SecretBackend::UserCanceled));
        if (answered) // (a lookup in the locked keyring would prompt)
            QCOMPARE(lookup(QStringLiteral("username")), QStringLiteral("run-user"));
        QVERIFY(log.lines().filter(QStringLiteral("Missing device UUID")).isEmpty());

        // The next run, unlocked, sends the keyring's identifier: a refused run wrote nothing.
        QVERIFY(lockLogin());
        newRun();
        answerNextPrompt("ok test");
        QCOMPARE(identifiersOfOneRun(), QStringList(3, QStringLiteral("KEYRING-ID")));
        QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().username,
                 answered ? QStringLiteral("run-user") : QStringLiteral("keyring-user"));
        QCOMPARE(itemCount(QStringLiteral("deviceUUID")), 1);
        QVERIFY(!answerPending());
    }

    // No default collection and no login keyring: the first write makes one (its password
    // asked through the prompt) and the identifier is kept there.
    void missingDefaultCollectionIsCreated()
    {
        if (m_prompterName.isEmpty())
            QSKIP("needs the prompter");
        m_backend.reset();
        newRun();
        QVERIFY(QDir(qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/keyrings")).removeRecursively());
        QVERIFY(restartDaemon(QByteArray()));
        answerNextPrompt("ok new-password");
        const QStringList identifiers = identifiersOfOneRun();
        QCOMPARE(identifiers.count(identifiers.first()), 3);
        AppStorageManager::sharedManager().storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        newRun();
        QCOMPARE(identifiersOfOneRun(), identifiers);
        QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().password, QStringLiteral("p"));
        QCOMPARE(lookup(QStringLiteral("deviceUUID")), identifiers.first());
        QVERIFY(!answerPending());
        QCOMPARE(unexpectedPrompts(), QByteArray());
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
