// Faults on this machine: a temporary folder that is read-only or full, and the extension
// port taken. Each leaves a log line that names the cause, and the user's settings and
// credentials read back as they were.
#include "extension/BrowserExtensionApi.h"
#include "foundation/FileSecretBackend.h"
#include "support/LogCapture.h"
#include "vpn/support/VpnTestEnvironment.h"

#include <QProcess>
#include <QTcpServer>
#include <QtTest>

namespace {
// A keychain that can be locked or taken away while the program runs.
class FlakySecrets : public FileSecretBackend {
public:
    using FileSecretBackend::FileSecretBackend;
    std::optional<int> failure;
    Result find(const QString &s, const QString &a) override
    {
        return failure ? fail() : FileSecretBackend::find(s, a);
    }
    Result update(const QString &s, const QString &a, const QByteArray &d) override
    {
        return failure ? fail() : FileSecretBackend::update(s, a, d);
    }
    Result add(const QString &s, const QString &a, const QByteArray &d) override
    {
        return failure ? fail() : FileSecretBackend::add(s, a, d);
    }

private:
    Result fail() const { return {*failure, {}, "The keyring cannot be reached."}; }
};
} // namespace

class TestFaultLocal : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_mount;
    std::shared_ptr<FlakySecrets> m_secrets;
    std::unique_ptr<VpnTestEnvironment> m_env;
    std::shared_ptr<VpnReports> m_reports;
    // A fresh world whose temporary folder is `tmp` (empty: the default) and whose user has an
    // account, a language and a stored state.
    void makeWorld(const QString &tmp = {})
    {
        m_secrets = std::make_shared<FlakySecrets>(m_dir.filePath("secrets.json"));
        SecretBackend::setSystemDefaultForTesting(m_secrets);
        m_env = std::make_unique<VpnTestEnvironment>("http://127.0.0.1:9", VpnTestEnvironment::Places{{}, {}, tmp});
        m_env->storage().storeVPNCredentials("kept-user", "kept-pass");
        m_env->storage().storeAppLanguageCode("de");
        m_env->storage().storeVPNStatus(1);
        m_reports = m_env->recordReports();
    }
    // What the next run reads: the keychain's account and the settings as they were.
    void expectNothingLost()
    {
        m_env->storage().flush();
        m_secrets->failure.reset();
        const QString service = "com.pelorin.vpn.test";
        QCOMPARE(m_secrets->find(service, "username").data, QByteArray("kept-user"));
        QCOMPARE(m_secrets->find(service, "password").data, QByteArray("kept-pass"));
        QCOMPARE(m_env->storage().appLanguageCode(), "de");
    }
    // A small tmpfs at m_mount (remounted read-only when `options` ends in ",ro"), its "tmp"
    // folder private to us.
    bool mountTemporaryFolder(QString options)
    {
        const bool readOnly = options.endsWith(",ro");
        options.remove(",ro");
        m_mount = m_dir.filePath("mnt");
        QDir().mkpath(m_mount);
        if (QProcess::execute("mount", {"-t", "tmpfs", "-o", options, "tmpfs", m_mount}) != 0)
            return (m_mount.clear(), false);
        QDir(m_mount).mkpath("tmp");
        QFile::setPermissions(m_mount + "/tmp", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        return !readOnly || QProcess::execute("mount", {"-o", "remount,ro", m_mount}) == 0;
    }

private slots:
    void cleanup()
    {
        m_env.reset();
        SecretBackend::setSystemDefaultForTesting(nullptr);
        if (!m_mount.isEmpty())
            QProcess::execute("umount", {m_mount});
        m_mount.clear();
    }

    void tunnelFaults_data()
    {
        QTest::addColumn<QString>("mount"); // tmpfs options ("ro" last: remounted read-only); empty: none
        QTest::addColumn<QList<int>>("states");
        QTest::addColumn<QStringList>("logs"); // texts the log must hold
        const QString writeFailed = "|NQVPNManager| Failed to write temporary OpenVPN config file: ";
        const QString notCreated = "|NQVPNManager| Failed to create temporary configuration file.";
        QTest::newRow("tmp read-only") << "size=64k,ro" << QList<int>{}
                                       << QStringList{writeFailed + "Read-only file system", notCreated};
        // Room for the profile and the credentials but not for the rewritten profile.
        QTest::newRow("tmp full at the rewrite")
            << "size=8k" << QList<int>{2, 3} << QStringList{writeFailed + "No space left on device"};
    }
    void tunnelFaults()
    {
        QFETCH(QString, mount);
        QFETCH(QList<int>, states);
        QFETCH(QStringList, logs);
        if (!mount.isEmpty() && !mountTemporaryFolder(mount))
            QSKIP("a small tmpfs cannot be mounted here (needs root and mount rights)");
        makeWorld(mount.isEmpty() ? QString() : m_mount + "/tmp");
        m_env->writeFile("sudo", VpnTestEnvironment::kStandInSudo, true);
        m_env->writeFile("helpers/ovpncli", VpnTestEnvironment::kStandInClient, true);
        m_env->writeFile("helpers/behaviour", VpnTestEnvironment::kConnectThenWait);
        LogCapture log;
        m_env->manager().startVPNConnectionWithConfigContent("client\nauth-user-pass\n", "DE");
        QTRY_COMPARE_WITH_TIMEOUT(m_reports->snapshot(), states, kVpnWaitMs);
        for (const QString &text : logs)
            QTRY_VERIFY2_WITH_TIMEOUT(!log.lines().filter(text).isEmpty(), qPrintable(text), kVpnWaitMs);
        QTRY_COMPARE_WITH_TIMEOUT(m_reports->endsSnapshot().size(), 0, kVpnWaitMs);
        // The state follows the last output (or stays as it was when nothing started).
        QCOMPARE(m_env->storage().getVPNStatus(), states.isEmpty() ? 1 : states.last());
        expectNothingLost();
    }

    // The settings and secrets files on a disk that fills up: a write fails with a line, and
    // what was stored before is still there after a restart.
    void storesOnAFullDisk()
    {
        if (!mountTemporaryFolder("size=16k"))
            QSKIP("a small tmpfs cannot be mounted here (needs root and mount rights)");
        const QString settings = m_mount + "/settings.conf";
        const QString secrets = m_mount + "/secrets.json";
        const auto open = [&] {
            return std::make_unique<AppStorageManager>(
                settings, KeychainStore("svc", std::make_shared<FileSecretBackend>(secrets)));
        };
        open()->storeVPNCredentials("kept-user", "kept-pass");
        open()->storeAppLanguageCode("de");
        QFile filler(m_mount + "/fill");
        QVERIFY(filler.open(QIODevice::Append));
        while (filler.write(QByteArray(512, 'f')) > 0 && filler.flush()) {
        }
        filler.close();
        LogCapture log;
        auto store = open();
        store->storeVPNCredentials("new-user", "new-pass");
        store->storeAppLanguageCode("fr");
        store->flush();
        // The first failed write ends the keychain's part for this run; the rest stays in memory.
        QCOMPARE(log.lines().filter("OSStatus error: [-26276] Cannot write the secrets file ").size(), 1);
        QCOMPARE(log.lines().filter("are kept in memory until quit").size(), 1);
        QCOMPARE(log.lines().filter("|AppStorageManager| Cannot write the settings file ").size(), 1);
        auto restarted = open();
        QCOMPARE(restarted->getVpnCredentials().username, "kept-user");
        QCOMPARE(restarted->getVpnCredentials().password, "kept-pass");
        // (This process's settings cache keeps "fr" until quit; the file has the old value.)
        QVERIFY(contentOf(settings).contains("LanguageCode=de"));
    }

    void portTakenThenKeychainLocked()
    {
        makeWorld();
        LogCapture log;
        QTcpServer holder;
        QVERIFY(holder.listen(QHostAddress::Any, 0));
        const QString port = QString::number(holder.serverPort());
        qputenv(BrowserExtensionApi::kPortEnvironmentVariable, port.toUtf8());
        BrowserExtensionApi api(&m_env->storage());
        api.startServer();
        qunsetenv(BrowserExtensionApi::kPortEnvironmentVariable);
        QVERIFY(!api.browserExtWebsocket());
        QVERIFY(log.lines().value(1).startsWith("CVWebSockerServer failed to initialize: "));
        QCOMPARE(log.lines().filter("|BrowserExtension| cannot listen on port " + port + ": another program").size(),
                 1);
        api.sendScrambleNow(); // the bridge goes on without a server

        // The manager's own password helpers: added once, then updated in place; a keychain that
        // cannot be reached leaves a line with its status, gives nothing back and keeps the password.
        NQVPNManager &vpn = m_env->manager();
        QVERIFY(vpn.retrievePasswordFromKeychain().isNull());
        vpn.savePasswordToKeychain("first");
        vpn.savePasswordToKeychain("second");
        QCOMPARE(vpn.retrievePasswordFromKeychain(), "second");
        m_secrets->failure = -25308;
        vpn.savePasswordToKeychain("third");
        QVERIFY(vpn.retrievePasswordFromKeychain().isNull());
        m_secrets->failure.reset();
        QCOMPARE(vpn.retrievePasswordFromKeychain(), "second");
        const QString m = "|NQVPNManager| ";
        QCOMPARE(log.lines().filter(m),
                 (QStringList{m + "No password found in Keychain for the given service and account.",
                              m + "Password successfully saved to Keychain.",
                              m + "Password already exists in Keychain. Updating it.",
                              m + "Password successfully updated in Keychain.",
                              m + "Password successfully retrieved from Keychain.",
                              m + "Failed to save password to Keychain with error: -25308",
                              m + "Failed to retrieve password from Keychain with error: -25308",
                              m + "Password successfully retrieved from Keychain."}));
    }
};

QTEST_GUILESS_MAIN(TestFaultLocal)
#include "tst_fault_local.moc"
