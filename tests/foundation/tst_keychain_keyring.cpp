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
#include "foundation/SecretBackend.h"
#include "foundation/SecretQueue.h"
#include "support/KeyringSession.h"
#include "support/LogCapture.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {
const QString kService = QStringLiteral("com.pelorin.vpn.mac");

struct ToolResult {
    int exitCode = -1;
    QString out;
};

ToolResult run(const QString &program, const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(15000)) {
        process.kill();
        process.waitForFinished();
        return {};
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput())};
}

ToolResult lookup(const QString &account)
{
    return run(QStringLiteral("secret-tool"),
               {QStringLiteral("lookup"), QStringLiteral("service"), kService, QStringLiteral("account"), account});
}

bool lockLogin()
{
    return run(QStringLiteral("dbus-send"),
               {QStringLiteral("--session"), QStringLiteral("--print-reply"),
                QStringLiteral("--dest=org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets"),
                QStringLiteral("org.freedesktop.Secret.Service.Lock"),
                QStringLiteral("array:objpath:/org/freedesktop/secrets/collection/login")})
               .exitCode == 0;
}

bool storeByHand(const QString &account, const QByteArray &secret)
{
    return run(QStringLiteral("secret-tool"),
               {QStringLiteral("store"), QStringLiteral("--label=by hand"), QStringLiteral("service"), kService,
                QStringLiteral("account"), account},
               secret)
               .exitCode == 0;
}

void clearByHand(const QString &account)
{
    run(QStringLiteral("secret-tool"),
        {QStringLiteral("clear"), QStringLiteral("service"), kService, QStringLiteral("account"), account});
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
    QStringList identifiers;
    for (int request = 0; request < 3; ++request)
        identifiers << AppConfig::deviceUniqueID();
    return identifiers;
}

int itemCount(const QString &account)
{
    // One "[/<item path>]" header line per item on standard output.
    const ToolResult found =
        run(QStringLiteral("secret-tool"), {QStringLiteral("search"), QStringLiteral("--all"),
                                            QStringLiteral("service"), kService, QStringLiteral("account"), account});
    int count = 0;
    for (const QString &line : found.out.split(QLatin1Char('\n')))
        if (line.startsWith(QLatin1String("[/")) && line.endsWith(QLatin1Char(']')))
            ++count;
    return count;
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
        QStringList arguments{QStringLiteral("--replace"), QStringLiteral("--components=secrets")};
        if (!password.isNull())
            arguments << QStringLiteral("--unlock");
        daemon.start(QStringLiteral("gnome-keyring-daemon"), arguments);
        daemon.write(password);
        daemon.closeWriteChannel();
        if (!daemon.waitForFinished(15000) || daemon.exitCode() != 0)
            return false;
        // Answers once the new daemon owns the name.
        QDeadlineTimer deadline(10000);
        while (!deadline.hasExpired()) {
            if (run(QStringLiteral("secret-tool"), {QStringLiteral("search"), QStringLiteral("x"), QStringLiteral("y")})
                    .exitCode >= 0)
                return true;
            QThread::msleep(50);
        }
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
        m_prompter.write("pending\n");
        m_prompter.waitForBytesWritten(5000);
        if (!m_prompter.waitForReadyRead(5000))
            return true;
        return m_prompter.readLine().trimmed() == "1";
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

    void aLabelledItemShowsItsLabel()
    {
        QVERIFY(m_backend->addLabelled(kService, QStringLiteral("labelled"), "x", QStringLiteral("VPN User Password"))
                    .ok());
        const ToolResult found = run(QStringLiteral("secret-tool"),
                                     {QStringLiteral("search"), QStringLiteral("--all"), QStringLiteral("service"),
                                      kService, QStringLiteral("account"), QStringLiteral("labelled")});
        QVERIFY2(found.out.contains(QStringLiteral("label = VPN User Password\n")), qPrintable(found.out));
        QVERIFY(m_backend->remove(kService, QStringLiteral("labelled")).ok());
    }

    void itemsAreRealKeyringItemsKeyedByServiceAndAccount()
    {
        NQErrorOpt error;
        QVERIFY(store().setString(QStringLiteral("vpn-user-42"), QStringLiteral("username"), &error));
        QVERIFY(!error);
        const ToolResult found = lookup(QStringLiteral("username"));
        QCOMPARE(found.exitCode, 0);
        QCOMPARE(found.out, QStringLiteral("vpn-user-42"));

        // An item written by another program with the same two attributes is ours too.
        QCOMPARE(run(QStringLiteral("secret-tool"),
                     {QStringLiteral("store"), QStringLiteral("--label=by hand"), QStringLiteral("service"), kService,
                      QStringLiteral("account"), QStringLiteral("deviceUUID")},
                     "6F1B-UUID")
                     .exitCode,
                 0);
        QCOMPARE(store().stringForKey(QStringLiteral("deviceUUID")), QStringLiteral("6F1B-UUID"));
        // Another service does not see it.
        QVERIFY(KeychainStore(QStringLiteral("other.service"), m_backend)
                    .stringForKey(QStringLiteral("deviceUUID"))
                    .isNull());
    }

    void writingTwiceLeavesOneItemWithTheSecondValue()
    {
        const QString secret = QStringLiteral("pässwörd ✓ 🔑");
        QVERIFY(store().setString(QStringLiteral("first"), QStringLiteral("password")));
        QVERIFY(store().setString(secret, QStringLiteral("password")));
        QCOMPARE(itemCount(QStringLiteral("password")), 1);
        QCOMPARE(store().stringForKey(QStringLiteral("password")), secret);
        QCOMPARE(lookup(QStringLiteral("password")).out, secret);
    }

    void settingsStoreKeepsItsSecretsInTheKeyring()
    {
        const int startsBefore = dynamic_cast<KeyringProcessBackend &>(*m_backend).helperStarts();
        QTemporaryDir dir;
        AppStorageManager manager(dir.filePath(QStringLiteral("settings.conf")), store());
        manager.storeVPNCredentials(QStringLiteral("u-1"), QStringLiteral("p-1"));
        manager.storeDeviceUUID(QStringLiteral("DEV-1"));
        manager.removeAppStorage();
        QCOMPARE(manager.deviceUUID(), QStringLiteral("DEV-1"));
        const AppStorageManager::VpnCredentials credentials = manager.getVpnCredentials();
        QCOMPARE(credentials.username, QStringLiteral("u-1"));
        QCOMPARE(credentials.password, QStringLiteral("p-1"));
        SecretQueue::drain();
        QCOMPARE(lookup(QStringLiteral("password")).out, QStringLiteral("p-1"));
        // One helper run answers several reads in the order asked.
        const std::vector<SecretBackend::Result> found = m_backend->findAll(
            kService, {QStringLiteral("password"), QStringLiteral("never-written"), QStringLiteral("username")});
        QCOMPARE(found.size(), size_t(3));
        QCOMPARE(found[0].data, QByteArray("p-1"));
        QCOMPARE(found[1].status, int(SecretBackend::ItemNotFound));
        QCOMPARE(found[2].data, QByteArray("u-1"));
        manager.removeVpnCredentials();
        QVERIFY(manager.getVpnCredentials().username.isNull());
        QVERIFY(manager.getVpnCredentials().password.isNull());
        SecretQueue::drain();
        QCOMPARE(itemCount(QStringLiteral("password")), 0);
        // A user action's requests share one helper (and one Secret Service session).
        QCOMPARE(dynamic_cast<KeyringProcessBackend &>(*m_backend).helperStarts(), startsBefore);
    }

    void helperRefusesNamesThatAreNotUtf8()
    {
        std::string stream;
        for (const KeyringMessage::Operation operation :
             {KeyringMessage::Operation::Find, KeyringMessage::Operation::Add, KeyringMessage::Operation::Remove})
            stream += KeyringMessage::encode({operation, kService.toStdString(), "bad\xff", "x"}).value();
        stream += KeyringMessage::encode({KeyringMessage::Operation::Find, std::string("svc\0x", 5), "a", {}}).value();
        QProcess helper;
        helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"));
        QVERIFY(helper.waitForStarted());
        helper.write(stream.data(), qint64(stream.size()));
        helper.closeWriteChannel();
        QVERIFY(helper.waitForFinished());
        QCOMPARE(helper.exitStatus(), QProcess::NormalExit);
        QCOMPARE(helper.exitCode(), 0);
        const std::string output = helper.readAllStandardOutput().toStdString();
        std::string_view rest = output;
        for (int i = 0; i < 4; ++i) {
            const std::optional<KeyringMessage::Answer> answer = KeyringMessage::takeAnswer(rest);
            QVERIFY(answer);
            QCOMPARE(answer->status, int(SecretBackend::InternalComponent));
        }
        QVERIFY(rest.empty());
    }

    void secretServiceLibrariesStayOutOfThisProcess()
    {
        QVERIFY(store().setString(QStringLiteral("mapped?"), QStringLiteral("username")));
        QCOMPARE(store().stringForKey(QStringLiteral("username")), QStringLiteral("mapped?"));
        QFile maps(QStringLiteral("/proc/self/maps"));
        QVERIFY(maps.open(QIODevice::ReadOnly));
        const QByteArray mapped = maps.readAll();
        QVERIFY(!mapped.isEmpty());
        QVERIFY(!mapped.contains("libsecret-1"));
        QVERIFY(!mapped.contains("libgio-2.0"));
    }

    // A run without a Secret Service keeps its secrets in the file; the next run with one moves
    // them in, so both runs (and every later one) send the same identifier.
    void fileSecretsMoveIntoTheSecretServiceOnce()
    {
        for (const QString &account :
             {QStringLiteral("deviceUUID"), QStringLiteral("username"), QStringLiteral("password")})
            clearByHand(account);
        const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/pelorin-test-bus");
        newRun();
        const QStringList first = identifiersOfOneRun();
        AppStorageManager::sharedManager().storeVPNCredentials(QStringLiteral("file-user"), QStringLiteral("file-pw"));
        SecretQueue::drain();
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
        QCOMPARE(first.size(), 3);
        QCOMPARE(first.count(first.first()), 3);
        QVERIFY(QFile::exists(FileSecretBackend::defaultFilePath()));

        for (int later = 0; later < 2; ++later) {
            newRun();
            QCOMPARE(identifiersOfOneRun(), first);
            const AppStorageManager::VpnCredentials credentials =
                AppStorageManager::sharedManager().getVpnCredentials();
            QCOMPARE(credentials.username, QStringLiteral("file-user"));
            QCOMPARE(credentials.password, QStringLiteral("file-pw"));
            QVERIFY(!QFile::exists(FileSecretBackend::defaultFilePath()));
            QCOMPARE(SecretBackend::systemDefault()->name(), QStringLiteral("secret-service"));
        }
        QCOMPARE(lookup(QStringLiteral("deviceUUID")).out, first.first());
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
            QVERIFY(!m_prompterName.isEmpty());
        }
        QVERIFY(restartDaemon("test"));
        QVERIFY(storeByHand(QStringLiteral("deviceUUID"), "KEYRING-ID"));
        QVERIFY(storeByHand(QStringLiteral("username"), "keyring-user"));
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
        if (answered) {
            QVERIFY(!AppStorageManager::sharedManager().secretsNotKept());
            QCOMPARE(lookup(QStringLiteral("username")).out, QStringLiteral("run-user"));
        } else {
            const NQErrorOpt notKept = AppStorageManager::sharedManager().secretsNotKept();
            QVERIFY(notKept && notKept->code() == SecretBackend::UserCanceled);
            QCOMPARE(log.count(QStringLiteral("|AppConfig| Missing device UUID create new: ") + identifiers.first()),
                     0);
        }

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
        QCOMPARE(lookup(QStringLiteral("deviceUUID")).out, identifiers.first());
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
