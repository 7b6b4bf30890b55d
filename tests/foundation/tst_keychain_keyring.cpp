// KeychainStore against a real GNOME keyring in a private session bus (see KeyringSession.h).
#include "foundation/AppStorageManager.h"
#include "foundation/KeychainStore.h"
#include "foundation/KeyringMessage.h"
#include "foundation/SecretBackend.h"
#include "support/KeyringSession.h"
#include "support/LogCapture.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

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
    KeychainStore store() const { return KeychainStore(kService, m_backend); }

private slots:
    void initTestCase()
    {
        if (!KeyringSession::isActive())
            QSKIP("dbus-run-session / gnome-keyring-daemon are not available here");
        QString reason;
        m_backend = SecretBackend::connectSecretService(&reason);
        QVERIFY2(m_backend, qPrintable(reason));
    }

    void systemDefaultChoosesTheSecretService()
    {
        QCOMPARE(SecretBackend::systemDefault()->name(), QStringLiteral("secret-service"));
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

    void removingAndNil()
    {
        LogCapture log;
        NQErrorOpt error;
        QVERIFY(store().removeItemForKey(QStringLiteral("never-written"), &error));
        QVERIFY(!error);
        QVERIFY(log.lines().isEmpty());

        QVERIFY(store().setString(QStringLiteral("someone"), QStringLiteral("username")));
        QVERIFY(store().setObject(QString(), QStringLiteral("username"), &error));
        QVERIFY(!error);
        QVERIFY(store().stringForKey(QStringLiteral("username"), &error).isNull());
        QVERIFY(!error);
        QCOMPARE(itemCount(QStringLiteral("username")), 0);
        QVERIFY(lookup(QStringLiteral("username")).exitCode != 0);
    }

    void settingsStoreKeepsItsSecretsInTheKeyring()
    {
        QTemporaryDir dir;
        AppStorageManager manager(dir.filePath(QStringLiteral("settings.conf")), store());
        manager.storeVPNCredentials(QStringLiteral("u-1"), QStringLiteral("p-1"));
        manager.storeDeviceUUID(QStringLiteral("DEV-1"));
        manager.removeAppStorage();
        QCOMPARE(manager.deviceUUID(), QStringLiteral("DEV-1"));
        const AppStorageManager::VpnCredentials credentials = manager.getVpnCredentials();
        QCOMPARE(credentials.username, QStringLiteral("u-1"));
        QCOMPARE(credentials.password, QStringLiteral("p-1"));
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
        QCOMPARE(itemCount(QStringLiteral("password")), 0);
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

    // Last: the keyring stays locked afterwards.
    void lockedKeyringReportsInteractionNotAllowedAndKeepsTheItem()
    {
        QVERIFY(store().setString(QStringLiteral("old"), QStringLiteral("username")));
        const ToolResult locked =
            run(QStringLiteral("dbus-send"),
                {QStringLiteral("--session"), QStringLiteral("--print-reply"),
                 QStringLiteral("--dest=org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets"),
                 QStringLiteral("org.freedesktop.Secret.Service.Lock"),
                 QStringLiteral("array:objpath:/org/freedesktop/secrets/collection/login")});
        QCOMPARE(locked.exitCode, 0);

        LogCapture log;
        NQErrorOpt error;
        QVERIFY(!store().setString(QStringLiteral("new"), QStringLiteral("username"), &error));
        QVERIFY(error);
        QCOMPARE(error->domain(), QStringLiteral("com.pelorin.vpn.mac"));
        QCOMPARE(error->code(), -25308);
        QCOMPARE(log.lines().size(), 1);
        QVERIFY2(log.lines().first().startsWith(QStringLiteral("OSStatus error: [-25308] ")),
                 qPrintable(log.lines().first()));

        QVERIFY(store().stringForKey(QStringLiteral("username"), &error).isNull());
        QCOMPARE(error->code(), -25308);
        QList<NQErrorOpt> errors;
        store().stringsForKeys({QStringLiteral("username"), QStringLiteral("username")}, &errors);
        QVERIFY(errors.size() == 2 && errors[0] && errors[1]);
        QCOMPARE(errors[1]->code(), -25308);
        QVERIFY(!store().removeItemForKey(QStringLiteral("username"), &error));
        QCOMPARE(error->code(), -25308);
        // Adding a new item into the locked default collection fails the same way.
        QVERIFY(!store().setString(QStringLiteral("x"), QStringLiteral("brand-new"), &error));
        QCOMPARE(error->code(), -25308);

        // A daemon restarted with the password unlocks the keyring from disk: the failed
        // write changed nothing.
        QCOMPARE(run(QStringLiteral("gnome-keyring-daemon"),
                     {QStringLiteral("--replace"), QStringLiteral("--unlock"), QStringLiteral("--components=secrets")},
                     "test")
                     .exitCode,
                 0);
        QTRY_COMPARE_WITH_TIMEOUT(lookup(QStringLiteral("username")).out, QStringLiteral("old"), 10000);
        QCOMPARE(itemCount(QStringLiteral("brand-new")), 0);
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
