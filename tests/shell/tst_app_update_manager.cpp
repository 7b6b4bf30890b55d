#include "ShellFakes.h"
#include "UpdateServer.h"
#include "foundation/BundleExtended.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "shell/AppUpdateManager.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

namespace {
constexpr auto kExecutable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray run(const QStringList &command)
{
    QProcess process;
    process.start(command.first(), command.mid(1));
    process.waitForFinished();
    return process.exitCode() == 0 ? process.readAllStandardOutput() : QByteArray();
}

// Throw-away publisher keys and real packages, made once for the whole run.
struct Publisher {
    QTemporaryDir dir;
    QString key, otherKey, publicKey;

    bool make()
    {
        key = dir.filePath(QStringLiteral("key.pem"));
        otherKey = dir.filePath(QStringLiteral("other.pem"));
        publicKey = dir.filePath(QStringLiteral("public.pem"));
        for (const QString &k : {key, otherKey})
            run({QStringLiteral("openssl"), QStringLiteral("genpkey"), QStringLiteral("-algorithm"),
                 QStringLiteral("ed25519"), QStringLiteral("-out"), k});
        run({QStringLiteral("openssl"), QStringLiteral("pkey"), QStringLiteral("-in"), key, QStringLiteral("-pubout"),
             QStringLiteral("-out"), publicKey});
        return QFileInfo(publicKey).size() > 0;
    }
    QByteArray package(const QString &name, const QString &version) const
    {
        const QString root = dir.filePath(name + version);
        QDir().mkpath(root + QStringLiteral("/DEBIAN"));
        QFile control(root + QStringLiteral("/DEBIAN/control"));
        if (!control.open(QIODevice::WriteOnly))
            return {};
        control.write(QStringLiteral("Package: %1\nVersion: %2\nArchitecture: all\nMaintainer: t <t@example>\n"
                                     "Description: test\n")
                          .arg(name, version)
                          .toUtf8());
        control.close();
        const QString deb = root + QStringLiteral(".deb");
        run({QStringLiteral("dpkg-deb"), QStringLiteral("--root-owner-group"), QStringLiteral("--build"), root, deb});
        return readAll(deb);
    }
    QByteArray sign(const QByteArray &data, const QString &with) const
    {
        const QString in = dir.filePath(QStringLiteral("to-sign"));
        QFile file(in);
        if (!file.open(QIODevice::WriteOnly))
            return {};
        file.write(data);
        file.close();
        return run({QStringLiteral("openssl"), QStringLiteral("pkeyutl"), QStringLiteral("-sign"),
                    QStringLiteral("-inkey"), with, QStringLiteral("-rawin"), QStringLiteral("-in"), in});
    }
};
} // namespace

class TestAppUpdateManager : public QObject {
    Q_OBJECT

    Publisher m_publisher;
    QByteArray m_newer; // pelorin-vpn 2.1.1.45
    std::unique_ptr<ShellSandbox> m_sandbox;
    std::unique_ptr<UpdateServer> m_server;
    QString m_installerLog;
    int m_appReady = 0;
    int m_hideUpdate = 0;

    // Installs a sandbox whose installer is a script exiting with `status`.
    void makeWorld(int status, const QString &packagePath = QStringLiteral("/package"))
    {
        m_server = std::make_unique<UpdateServer>();
        auto *scratch = new QTemporaryDir; // freed with the test object
        scratch->setAutoRemove(true);
        connect(this, &QObject::destroyed, [scratch] { delete scratch; });
        const QString resources = scratch->filePath(QStringLiteral("res"));
        QDir().mkpath(resources);
        UpdateServer::writeConfig(resources, m_server->url(QStringLiteral("/latest")), m_server->url(packagePath));
        QVERIFY(QFile::copy(m_publisher.publicKey, resources + QStringLiteral("/update-key.pem")));
        const QString installer = scratch->filePath(QStringLiteral("installer.sh"));
        m_installerLog = scratch->filePath(QStringLiteral("installer.log"));
        QFile script(installer);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(
            QStringLiteral("#!/bin/sh\necho \"$@\" >> '%1'\nexit %2\n").arg(m_installerLog).arg(status).toUtf8());
        script.close();
        QVERIFY(script.setPermissions(kExecutable));
        m_sandbox = std::make_unique<ShellSandbox>(
            LinuxPlatform::Overrides{.resourcesDirectory = resources, .installer = installer});
        AppUpdateManager::setSharedManagerForTesting(nullptr);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_publisher.make());
        m_newer = m_publisher.package(QStringLiteral("pelorin-vpn"), QStringLiteral("2.1.1.45"));
        QVERIFY(!m_newer.isEmpty());
    }
    void init()
    {
        EventBus::defaultCenter().reset();
        BundleExtended::setInfoDictionaryForTesting(
            QVariantMap{{BundleExtended::kShortVersionKey, QStringLiteral("2.1.0")},
                        {BundleExtended::kVersionKey, QStringLiteral("45")},
                        {BundleExtended::kNameKey, QStringLiteral("PelorinVPN")}});
        m_appReady = m_hideUpdate = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::NOTIFICATION_APP_READY),
                                              [this](const Event &) { ++m_appReady; });
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::NT_HIDE_UPDATE),
                                              [this](const Event &) { ++m_hideUpdate; });
    }
    void cleanup()
    {
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        m_sandbox.reset();
        m_server.reset();
        EventBus::defaultCenter().reset();
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
    }

    void compareVersionsByIntegerComponents_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<QString>("greater");
        QTest::newRow("equal keeps first") << "1.2"
                                           << "1.2.0"
                                           << "1.2";
        QTest::newRow("numeric not textual") << "1.9"
                                             << "1.10"
                                             << "1.10";
        QTest::newRow("build number") << "2.1.0.45"
                                      << "2.1.1"
                                      << "2.1.1";
        QTest::newRow("line feed") << "2.1.0.45"
                                   << "2.1.0.45\n"
                                   << "2.1.0.45";
        QTest::newRow("garbage counts 0") << "2.1.0.45"
                                          << "<html>oops</html>"
                                          << "2.1.0.45";
        QTest::newRow("leading digits") << "3rc.1"
                                        << "3.0"
                                        << "3rc.1";
        QTest::newRow("longer wins on extra") << "1.0"
                                              << "1.0.0.1"
                                              << "1.0.0.1";
    }
    void compareVersionsByIntegerComponents()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(QString, greater);
        QCOMPARE(AppUpdateManager::compareVersions(a, b), greater);
    }

    void checkAgainstTheServer_data()
    {
        QTest::addColumn<QByteArray>("latest");
        QTest::addColumn<bool>("available");
        QTest::newRow("same") << QByteArray("2.1.0.45") << false;
        QTest::newRow("same with line feed") << QByteArray("2.1.0.45\n") << false;
        QTest::newRow("newer") << QByteArray("2.1.1") << true;
        QTest::newRow("older") << QByteArray("2.0.9.99") << false;
        QTest::newRow("garbage") << QByteArray("<html>502 Bad Gateway</html>") << false;
    }
    void checkAgainstTheServer()
    {
        QFETCH(QByteArray, latest);
        QFETCH(bool, available);
        makeWorld(0);
        m_server->latest = latest;
        LogCapture log;
        std::optional<bool> answer;
        AppUpdateManager::sharedManager().checkForUpdateWithCompletion([&](bool a) { answer = a; });
        QTRY_VERIFY(answer.has_value());
        QCOMPARE(*answer, available);
        QVERIFY(
            log.lines().contains(QStringLiteral("|AppUpdateManager| Latest Version :\n") + QString::fromUtf8(latest)));
    }

    void unreachableCheckSaysNoUpdate()
    {
        makeWorld(0);
        UpdateServer::writeConfig(m_sandbox->overrides().resourcesDirectory,
                                  QStringLiteral("http://127.0.0.1:1/latest"), QString());
        LogCapture log;
        std::optional<bool> answer;
        AppUpdateManager::sharedManager().checkForUpdateWithCompletion([&](bool a) { answer = a; });
        QTRY_VERIFY(answer.has_value());
        QVERIFY(!*answer);
        QVERIFY(log.lines().last().startsWith(QStringLiteral("Error: ")));
    }

    void successfulInstallReplacesOldPackageAndQuits()
    {
        makeWorld(0);
        m_server->package = m_newer + QByteArray(300 * 1024, '\0'); // ar ignores what follows its members
        m_server->signature = m_publisher.sign(m_server->package, m_publisher.key);
        const QString downloads = m_sandbox->overrides().downloadsDirectory;
        QDir().mkpath(downloads);
        QFile old(downloads + QStringLiteral("/PelorinVPN.deb"));
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("old package");
        old.close();

        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        Journal journal;
        FakeWindow window(journal);
        AppUpdateManager::setWindowHost(&window);
        int installed = 0;
        updates.setInstalledHandler([&] {
            journal.entries << QStringLiteral("quit");
            ++installed;
        });
        QSignalSpy progress(&updates, &AppUpdateManager::downloadProgress);
        LogCapture log;
        updates.downloadAndInstallPKG();
        QVERIFY(updates.isDownloading());
        QTRY_COMPARE(installed, 1);
        AppUpdateManager::setWindowHost(nullptr);
        QCOMPARE(journal.entries, (QStringList{QStringLiteral("window.prohibited"), QStringLiteral("quit")}));
        QVERIFY(!updates.isDownloading());
        QCOMPARE(m_hideUpdate, 1);
        QCOMPARE(m_appReady, 0);
        QCOMPARE(readAll(downloads + QStringLiteral("/PelorinVPN.deb")), m_server->package);
        QCOMPARE(readAll(m_installerLog), downloads.toUtf8() + "/PelorinVPN.deb\n");
        QVERIFY(!progress.isEmpty());
        QCOMPARE(progress.last().at(0).toLongLong(), qint64(m_server->package.size()));
        QVERIFY(log.lines().contains(
            QStringLiteral("|AppUpdateManager| Installation termination status = 0 and reason = 1.")));
        QCOMPARE(QDir(downloads).entryList(QDir::Files | QDir::Hidden),
                 (QStringList{QStringLiteral("PelorinVPN.deb"), QStringLiteral("PelorinVPN.deb.sig")}));
    }

    void refusedPackagesInstallNothing_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("version");
        QTest::addColumn<QString>("signer"); // "key", "other", "none"
        QTest::addColumn<bool>("tamper");
        QTest::addColumn<QString>("reason");
        QTest::newRow("tampered") << "pelorin-vpn"
                                  << "2.1.1.45"
                                  << "key" << true << "not signed by the publisher's key";
        QTest::newRow("signed by another key") << "pelorin-vpn"
                                               << "2.1.1.45"
                                               << "other" << false << "not signed by the publisher's key";
        QTest::newRow("unsigned") << "pelorin-vpn"
                                  << "2.1.1.45"
                                  << "none" << false << "has no signature";
        QTest::newRow("older") << "pelorin-vpn"
                               << "2.0.9.99"
                               << "key" << false << "version 2.0.9.99 is older than the running version 2.1.0.45";
        QTest::newRow("another product") << "pelorin-vpn-evil"
                                         << "9.0.0.1"
                                         << "key" << false << "'pelorin-vpn-evil' is not the pelorin-vpn package";
    }
    void refusedPackagesInstallNothing()
    {
        QFETCH(QString, name);
        QFETCH(QString, version);
        QFETCH(QString, signer);
        QFETCH(bool, tamper);
        QFETCH(QString, reason);
        makeWorld(0);
        QByteArray package = name == QLatin1String("pelorin-vpn") && version == QLatin1String("2.1.1.45")
                                 ? m_newer
                                 : m_publisher.package(name, version);
        if (signer != QLatin1String("none"))
            m_server->signature =
                m_publisher.sign(package, signer == QLatin1String("key") ? m_publisher.key : m_publisher.otherKey);
        if (tamper)
            package[package.size() - 1] = char(package.at(package.size() - 1) ^ 1);
        m_server->package = package;
        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        int installed = 0;
        updates.setInstalledHandler([&] { ++installed; });
        LogCapture log;
        updates.downloadAndInstallPKG();
        QTRY_COMPARE(m_appReady, 1);
        QVERIFY(!updates.isDownloading());
        QVERIFY2(std::ranges::any_of(log.lines(),
                                     [&](const QString &l) {
                                         return l.startsWith(QStringLiteral("|AppUpdateManager| Update refused: ")) &&
                                                l.contains(reason);
                                     }),
                 qPrintable(log.lines().join(QLatin1Char('\n'))));
        QVERIFY(!QFile::exists(m_installerLog));
        QCOMPARE(installed, 0);
        QCOMPARE(m_hideUpdate, 0);
    }

    void failingInstallerKeepsRunningAndPostsAppReady()
    {
        makeWorld(1);
        m_server->package = m_newer;
        m_server->signature = m_publisher.sign(m_newer, m_publisher.key);
        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        int installed = 0;
        updates.setInstalledHandler([&] { ++installed; });
        LogCapture log;
        updates.downloadAndInstallPKG();
        QTRY_COMPARE(m_appReady, 1);
        QVERIFY(!updates.isDownloading());
        QCOMPARE(installed, 0);
        QCOMPARE(m_hideUpdate, 0);
        QVERIFY(log.lines().contains(QStringLiteral("|AppUpdateManager| Installation failed with status: 1")));
        QVERIFY(log.lines().contains(QStringLiteral("|NQVPNManager| post NT_APP_READY")));
    }

    void undeletableOldPackageStopsTheUpdate()
    {
        makeWorld(0);
        m_server->package = "pkg";
        m_server->signature = QByteArray(AppUpdateManager::kSignatureBytes, 's');
        const QString blocked = m_sandbox->overrides().downloadsDirectory + QStringLiteral("/PelorinVPN.deb");
        QVERIFY(QDir().mkpath(blocked + QStringLiteral("/inside")));
        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        LogCapture log;
        updates.downloadAndInstallPKG();
        QTRY_COMPARE(m_appReady, 1);
        QVERIFY(!updates.isDownloading());
        QVERIFY(std::ranges::any_of(log.lines(), [](const QString &l) {
            return l.startsWith(QStringLiteral("|AppUpdateManager| Failed to delete existing file: "));
        }));
        QVERIFY(!QFile::exists(m_installerLog));
        QVERIFY(QFileInfo(blocked + QStringLiteral("/inside")).isDir()); // nothing of the user's lost
    }

    void missingPackageOnServerIsADownloadError()
    {
        makeWorld(0, QStringLiteral("/nothing-here"));
        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        LogCapture log;
        updates.downloadAndInstallPKG();
        QTRY_COMPARE(m_appReady, 1);
        QVERIFY(!updates.isDownloading());
        QVERIFY(std::ranges::any_of(log.lines(), [](const QString &l) {
            return l.startsWith(QStringLiteral("|AppUpdateManager| Download error: "));
        }));
        QVERIFY(!QFile::exists(m_installerLog));
        QCOMPARE(QDir(m_sandbox->overrides().downloadsDirectory).entryList(QDir::Files | QDir::Hidden), QStringList());
    }

    void installerThatCannotStartIsReported()
    {
        makeWorld(0);
        Platform::setInstance(std::make_unique<LinuxPlatform>(
            LinuxPlatform::Overrides{.applicationSupportDirectory = m_sandbox->overrides().applicationSupportDirectory,
                                     .downloadsDirectory = m_sandbox->overrides().downloadsDirectory,
                                     .resourcesDirectory = m_sandbox->overrides().resourcesDirectory,
                                     .installer = m_sandbox->dir.filePath(QStringLiteral("no-such-installer"))}));
        const QString package = m_sandbox->dir.filePath(QStringLiteral("PelorinVPN.deb"));
        for (const auto &[path, data] :
             {std::pair{package, m_newer},
              std::pair{package + QStringLiteral(".sig"), m_publisher.sign(m_newer, m_publisher.key)}}) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(data);
        }
        LogCapture log;
        AppUpdateManager::sharedManager().installPKGAtPath(package);
        QTRY_COMPARE(m_appReady, 1);
        QVERIFY(std::ranges::any_of(log.lines(), [](const QString &l) {
            return l.startsWith(QStringLiteral("|AppUpdateManager| Error launching installer: "));
        }));
    }
};

QTEST_GUILESS_MAIN(TestAppUpdateManager)
#include "tst_app_update_manager.moc"
