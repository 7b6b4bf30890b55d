// The updater against a loopback server: "/latest" answers the version text a test sets,
// "/package" the package and "/package.sig" its signature (404 when empty); other paths answer
// 404. The packages are real and signed with throw-away keys; the installer is a script.
#include "ShellFakes.h"
#include "foundation/EventNames.h"
#include "shell/AppUpdateManager.h"
#include "shell/SplashVC.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QHttpServer>
#include <QHttpServerResponse>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

namespace {
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
    QString key = dir.filePath(QStringLiteral("key.pem"));
    QString publicKey = dir.filePath(QStringLiteral("public.pem"));

    QByteArray package(const QString &name, const QString &version) const
    {
        const QString root = dir.filePath(name + version);
        QDir().mkpath(root + QStringLiteral("/DEBIAN"));
        writeFile(root + QStringLiteral("/DEBIAN/control"),
                  QStringLiteral("Package: %1\nVersion: %2\nArchitecture: all\nMaintainer: t <t@example>\n"
                                 "Description: test\n")
                      .arg(name, version)
                      .toUtf8());
        run({"dpkg-deb", "--root-owner-group", "--build", root, root + QStringLiteral(".deb")});
        return contentOf(root + QStringLiteral(".deb"));
    }
    QByteArray sign(const QByteArray &data, const QString &with) const
    {
        const QString in = dir.filePath(QStringLiteral("to-sign"));
        return writeFile(in, data) ? run({"openssl", "pkeyutl", "-sign", "-inkey", with, "-rawin", "-in", in})
                                   : QByteArray();
    }
};

// Updates that must leave the running version in place.
struct Failure {
    const char *name;
    const char *package; // "NAME VERSION"; null: pelorin-vpn 2.1.1.45
    bool isSigned;
    bool tamper;
    int installerStatus; // -1: no installer at all
    const char *packagePath;
    bool oldPackageUndeletable;
    const char *said; // in the updater's log
};
constexpr Failure kFailures[] = {
    {"tampered", nullptr, true, true, 0, "/package", false, "Update refused: not signed by the publisher's key"},
    {"unsigned", nullptr, false, false, 0, "/package", false, "Update refused: has no signature"},
    {"older", "pelorin-vpn 2.0.9.99", true, false, 0, "/package", false,
     "Update refused: version 2.0.9.99 is older than the running version 2.1.0.45"},
    {"another product", "pelorin-vpn-evil 9.0.0.1", true, false, 0, "/package", false,
     "Update refused: 'pelorin-vpn-evil' is not the pelorin-vpn package"},
    {"installer fails", nullptr, true, false, 1, "/package", false, "Installation failed with status: 1"},
    {"installer missing", nullptr, true, false, -1, "/package", false, "Error launching installer: "},
    {"package missing on the server", nullptr, true, false, 0, "/nothing-here", false, "Download error: "},
    {"old package undeletable", nullptr, true, false, 0, "/package", true, "Failed to delete existing file: "},
    {"downloads folder unusable", nullptr, true, false, 0, "", false, "Download error: "},
};
} // namespace

class TestAppUpdateManager : public QObject {
    Q_OBJECT

    Publisher m_publisher;
    QByteArray m_newer; // pelorin-vpn 2.1.1.45
    QTemporaryDir m_scratch;
    QHttpServer m_server;
    quint16 m_port = 0;
    QByteArray m_latest;
    QByteArray m_package;
    QByteArray m_signature;
    std::unique_ptr<ShellWorld> w;
    QString m_installerLog;
    int m_appReady = 0;
    int m_hideUpdate = 0;
    int m_worlds = 0;

    QString url(const QString &path) const { return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path); }

    // A world whose updater asks the loopback server and whose installer is a script exiting
    // with `status` (-1: there is no installer).
    void makeWorld(int status, const QString &packagePath = QStringLiteral("/package"))
    {
        m_latest = m_package = m_signature = {};
        const QString root = m_scratch.filePath(QString::number(++m_worlds));
        const QString resources = root + QStringLiteral("/res");
        QDir().mkpath(resources);
        const QString urls = QStringLiteral("<key>UpdateUrlLatestVersion</key><string>%1</string>"
                                            "<key>Update Url Direct</key><string>%2</string>")
                                 .arg(url(QStringLiteral("/latest")), url(packagePath));
        QVERIFY(writeFile(resources + QStringLiteral("/ReleaseConfig.plist"),
                          QStringLiteral("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>%1</dict></plist>\n")
                              .arg(urls)
                              .toUtf8()));
        QVERIFY(QFile::copy(m_publisher.publicKey, resources + QStringLiteral("/update-key.pem")));
        const QString installer = root + QStringLiteral("/installer.sh");
        m_installerLog = root + QStringLiteral("/installer.log");
        if (status >= 0)
            QVERIFY(writeFile(
                installer,
                QStringLiteral("#!/bin/sh\necho \"$@\" >> '%1'\nexit %2\n").arg(m_installerLog).arg(status).toUtf8(),
                QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        w.reset();
        w = std::make_unique<ShellWorld>(
            LinuxPlatform::Overrides{.resourcesDirectory = resources, .installer = installer});
        m_appReady = m_hideUpdate = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::NOTIFICATION_APP_READY),
                                              [this](const Event &) { ++m_appReady; });
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::NT_HIDE_UPDATE),
                                              [this](const Event &) { ++m_hideUpdate; });
    }
    QString downloads() const { return w->overrides.downloadsDirectory; }

private slots:
    void initTestCase()
    {
        run({"openssl", "genpkey", "-algorithm", "ed25519", "-out", m_publisher.key});
        run({"openssl", "pkey", "-in", m_publisher.key, "-pubout", "-out", m_publisher.publicKey});
        QVERIFY(QFileInfo(m_publisher.publicKey).size() > 0);
        m_newer = m_publisher.package(QStringLiteral("pelorin-vpn"), QStringLiteral("2.1.1.45"));
        QVERIFY(!m_newer.isEmpty());
        const auto body = [](const QByteArray &data) {
            return data.isEmpty() ? QHttpServerResponse(QHttpServerResponder::StatusCode::NotFound)
                                  : QHttpServerResponse(QByteArrayLiteral("application/octet-stream"), data);
        };
        m_server.route(QStringLiteral("/latest"), [this] { return QHttpServerResponse(m_latest); });
        m_server.route(QStringLiteral("/package"), [this, body] { return body(m_package); });
        m_server.route(QStringLiteral("/package.sig"), [this, body] { return body(m_signature); });
        m_port = m_server.listen(QHostAddress::LocalHost, 0);
        QVERIFY(m_port != 0);
    }
    void cleanup()
    {
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        w.reset();
    }

    // The running version is 2.1.0.45; versions compare by the leading integer of each part.
    void checkAgainstTheServer_data()
    {
        QTest::addColumn<QByteArray>("latest");
        QTest::addColumn<bool>("available");
        QTest::newRow("same, one part more") << QByteArray("2.1.0.45.0") << false;
        QTest::newRow("newer build") << QByteArray("2.1.0.100") << true; // numeric, not textual
        QTest::newRow("garbage counts 0") << QByteArray("<html>502 Bad Gateway</html>") << false;
    }
    void checkAgainstTheServer()
    {
        QFETCH(QByteArray, latest);
        QFETCH(bool, available);
        makeWorld(0);
        m_latest = latest;
        std::optional<bool> answer;
        AppUpdateManager::sharedManager().checkForUpdateWithCompletion([&](bool a) { answer = a; });
        QTRY_VERIFY(answer.has_value());
        QCOMPARE(*answer, available);
    }

    void successfulInstallReplacesOldPackageAndQuits()
    {
        makeWorld(0);
        m_package = m_newer + QByteArray(300 * 1024, '\0'); // ar ignores what follows its members
        m_signature = m_publisher.sign(m_package, m_publisher.key);
        QDir().mkpath(downloads());
        QVERIFY(writeFile(downloads() + QStringLiteral("/PelorinVPN.deb"), "old package"));

        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        AppUpdateManager::setWindowHost(&w->fake);
        updates.setInstalledHandler([this] { w->fake.journal << QStringLiteral("quit"); });
        QSignalSpy progress(&updates, &AppUpdateManager::downloadProgress);
        updates.downloadAndInstallPKG();
        // The start-up screen does not go home while the update is under way.
        SplashVC splash(w->fake, w->fake, w->fake);
        splash.openHome();
        w->clock.advance(0);
        QCOMPARE(splash.state(), SplashVC::State::Loading);
        QTRY_VERIFY(w->fake.journal.contains(QStringLiteral("quit")));
        AppUpdateManager::setWindowHost(nullptr);
        QCOMPARE(w->fake.journal, (QStringList{"window.prohibited", "quit"}));
        QVERIFY(!updates.isDownloading());
        QCOMPARE(m_hideUpdate, 1);
        QCOMPARE(contentOf(m_installerLog), downloads().toUtf8() + "/PelorinVPN.deb\n");
        QCOMPARE(progress.isEmpty() ? 0 : progress.last().at(0).toLongLong(), qint64(m_package.size()));
    }

    void failedUpdatesKeepTheRunningVersion_data()
    {
        QTest::addColumn<int>("row");
        for (int i = 0; i < int(std::size(kFailures)); ++i)
            QTest::newRow(kFailures[i].name) << i;
    }
    void failedUpdatesKeepTheRunningVersion()
    {
        QFETCH(int, row);
        const Failure &c = kFailures[row];
        makeWorld(c.installerStatus, QString::fromLatin1(c.packagePath));
        const QStringList identity = QString::fromLatin1(c.package).split(QLatin1Char(' '));
        QByteArray package = c.oldPackageUndeletable ? QByteArray("pkg")
                             : !c.package            ? m_newer
                                                     : m_publisher.package(identity.value(0), identity.value(1));
        if (c.oldPackageUndeletable)
            m_signature = QByteArray(AppUpdateManager::kSignatureBytes, 's');
        else if (c.isSigned)
            m_signature = m_publisher.sign(package, m_publisher.key);
        if (c.tamper)
            package[package.size() - 1] = char(package.at(package.size() - 1) ^ 1);
        m_package = package;
        const QString blocked = downloads() + QStringLiteral("/PelorinVPN.deb/inside");
        if (c.oldPackageUndeletable)
            QVERIFY(QDir().mkpath(blocked));
        if (!*c.packagePath) // a file of the user's where the downloads folder should be
            QVERIFY(writeFile(downloads(), "mine"));

        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        LogCapture log;
        updates.downloadAndInstallPKG();
        QTRY_COMPARE(m_appReady, 1);
        QVERIFY(!updates.isDownloading());
        // "What: why": the line starts with what happened and gives the reason somewhere.
        const QString said = QString::fromLatin1(c.said);
        const qsizetype colon = said.indexOf(QStringLiteral(": ")) + 2;
        const QString what = QStringLiteral("|AppUpdateManager| ") + said.left(colon);
        QVERIFY2(std::ranges::any_of(
                     log.lines(), [&](const QString &l) { return l.startsWith(what) && l.contains(said.mid(colon)); }),
                 qPrintable(log.lines().join(QLatin1Char('\n'))));
        if (c.oldPackageUndeletable)
            QVERIFY(QFileInfo(blocked).isDir()); // nothing of the user's lost
        if (!*c.packagePath)
            QCOMPARE(contentOf(downloads()), QByteArray("mine"));
        if (qstrcmp(c.packagePath, "/package") != 0)
            QCOMPARE(QDir(downloads()).entryList(QDir::Files | QDir::Hidden), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestAppUpdateManager)
#include "tst_app_update_manager.moc"
