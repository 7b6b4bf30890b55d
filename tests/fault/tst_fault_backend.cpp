// Every request the client makes, against a real development backend told to misbehave: each
// fault ends in exactly one completion that carries a message, and the settings file and the
// stored credentials are byte for byte what they were.
#include "backend/BackofficeApiDesktop.h"
#include "backend/DevBackendProcess.h"
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/NQConfig.h"
#include "platform/linux/LinuxPlatform.h"
#include "shell/AppUpdateManager.h"
#include "support/LogCapture.h"
#include "vpn/NQVPNManager.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

QString text(const NQErrorOpt &e)
{
    return e ? e->localizedDescription() : QString();
}

// One entry per request of the client: its path on the backend, and how to send it and hand
// on what the caller learns (the error text; empty when it learns of no failure).
using Report = std::function<void(const QString &)>;
struct Request {
    QString name, prefix;
    std::function<void(Report)> send;
};
NQIdentityServer &server()
{
    return NQIdentityServer::sharedManager();
}
const QList<Request> &requests()
{
    static const QList<Request> all{
        {"label settings", "/api1/Configuration/labelsettings",
         [](Report r) {
             server().labelsettingsForLabelID("20014", AppConfig::deviceUniqueID(), {}, 1, "en", "2.1.0",
                                              [r](auto &, auto &, auto &, const NQErrorOpt &e) { r(text(e)); });
         }},
        {"extension link", "/api1/Configuration/extensiondownload",
         [](Report r) {
             server().fetchBrowserExtensionConfigForLabelID(
                 "20014", "chrome", [r](bool, const QString &, const NQErrorOpt &e) { r(text(e)); });
         }},
        {"install stats", "/Configuration/installstats",
         [](Report r) {
             server().reportAnalyticsEventForLabelID(
                 "20014", "DEV", "MACHINE", "en", {}, "2.1.0", 0, true,
                 [r](bool sent, const NQErrorOpt &e) { r(e || sent ? text(e) : QStringLiteral("not sent")); });
         }},
        {"registerVpn", "/api1/vpnapi/create",
         [](Report r) { server().registerVpnApi([r](auto &, auto &, const QString &error) { r(error); }); }},
        {"location", "/api1/helper/iptocountry",
         [](Report r) {
             BackofficeApiDesktop::checkMyLocation([r](auto &, auto &, auto &, auto &error) { r(error); });
         }},
        {"countries", "/api1/vpnapi/serverlist",
         [](Report r) {
             NQVPNManager::sharedManager().getCountries([r](auto &, const NQErrorOpt &e) { r(text(e)); });
         }},
        {"profile", "/api1/vpnapi/serverovpn",
         [](Report r) {
             NQVPNManager::sharedManager().getCountryVPNConfig(101, [r](auto &, auto &, auto &e) { r(text(e)); });
         }},
        // A failed check means "no update"; the reason is in the log.
        {"update check", "/update/latest",
         [](Report r) {
             AppUpdateManager::sharedManager().checkForUpdateWithCompletion(
                 [r](bool available) { r(available ? QStringLiteral("update") : QStringLiteral("no update")); });
         }},
    };
    return all;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
}

QString closedPortUrl()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
}

// A package answer whose header promises more bytes than follow before the hang-up.
const QByteArray kCutShort =
    "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: 65536\r\n\r\n" +
    QByteArray(1000, 'p');

} // namespace

class TestFaultBackend : public QObject {
    Q_OBJECT

    DevBackendProcess m_backend;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString path(const QString &name) const { return m_dir->filePath(name); }

    // Points the client at `host`, with settings and keychain files of this test's own.
    void makeWorld(const QString &host, const QString &packageUrl = {})
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QDir().mkpath(path("res"));
        const auto plist = [this](const QString &name, const QString &body) {
            writeFile(path("res/" + name), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" +
                                               body.toUtf8() + "</dict></plist>\n");
        };
        plist("CommonConfig.plist", "<key>Host URL</key><string>" + host + "</string>");
        plist("ReleaseConfig.plist", "<key>UpdateUrlLatestVersion</key><string>" + host +
                                         "/update/latest</string><key>Update Url Direct</key><string>" +
                                         (packageUrl.isEmpty() ? host + "/update/PelorinVPN.deb" : packageUrl) +
                                         "</string>");
        writeFile(path("installer.sh"), "#!/bin/sh\necho \"$@\" >> \"$(dirname \"$0\")/installed\"\n");
        QFile::setPermissions(path("installer.sh"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        Platform::setInstance(
            std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.temporaryDirectory = path("tmp"),
                                                                     .applicationSupportDirectory = path("support"),
                                                                     .downloadsDirectory = path("Downloads"),
                                                                     .resourcesDirectory = path("res"),
                                                                     .installer = path("installer.sh")}));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            path("settings.conf"),
            KeychainStore(KeychainStore::defaultService(), std::make_shared<FileSecretBackend>(path("secrets.json")))));
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        // What the user has: settings, the device identifier and an account.
        AppStorageManager &store = AppStorageManager::sharedManager();
        (void)AppConfig::deviceUniqueID();
        store.storeVPNCredentials("kept-user", "kept-pass");
        store.storeAppLanguageCode("de");
        store.storeVPNStatus(1);
        store.flush();
    }
    QByteArray snapshot() const { return contentOf(path("settings.conf")) + '\0' + contentOf(path("secrets.json")); }

private slots:
    void initTestCase() { QVERIFY2(m_backend.start(), "pelorin-devbackend did not start"); }
    void init()
    {
        m_backend.call("DELETE", "/control/fault");
        EventBus::defaultCenter().reset();
    }
    void cleanup()
    {
        NQConfig::setHttpTimeoutForTesting(60);
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        NQVPNManager::setSharedManagerForTesting(nullptr);
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
        EventBus::defaultCenter().reset();
    }

    void everyRequestUnderEveryFault_data()
    {
        QTest::addColumn<int>("request");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("message"); // exact, or empty: any non-empty text
        const QString truncated = QStringLiteral("{\"success\": 1, \"username\": \"pv-new\", \"passw");
        for (int i = 0; i < requests().size(); ++i) {
            const QString name = requests()[i].name;
            const bool update = name == "update check";
            const QString refused = update ? "no update" : "Could not connect to the server.";
            const QString late = update ? "no update" : "The request timed out.";
            const QString unreadable = update ? "no update" : QString();
            QTest::addRow("%s: down", qPrintable(name)) << i << "down" << QJsonValue() << refused;
            QTest::addRow("%s: slow", qPrintable(name)) << i << "delay" << QJsonValue(3000) << late;
            QTest::addRow("%s: 500 page", qPrintable(name)) << i << "status" << QJsonValue(500) << unreadable;
            QTest::addRow("%s: html", qPrintable(name)) << i << "non-json" << QJsonValue() << unreadable;
            QTest::addRow("%s: truncated", qPrintable(name)) << i << "body" << QJsonValue(truncated) << unreadable;
            QTest::addRow("%s: wrong shape", qPrintable(name)) << i << "wrong-shape" << QJsonValue() << unreadable;
        }
    }
    void everyRequestUnderEveryFault()
    {
        QFETCH(int, request);
        QFETCH(QString, kind);
        QFETCH(QJsonValue, value);
        QFETCH(QString, message);
        const Request &r = requests()[request];
        makeWorld(kind == "down" ? closedPortUrl() : m_backend.baseUrl());
        NQConfig::setHttpTimeoutForTesting(0.4);
        if (kind != "down")
            QVERIFY(m_backend.fault(r.prefix, kind, value));
        const QByteArray before = snapshot();
        LogCapture log;
        auto got = std::make_shared<QStringList>();
        r.send([got](const QString &text) { *got << text; });
        QTRY_VERIFY_WITH_TIMEOUT(!got->isEmpty(), 10000);
        QTest::qWait(100); // a second completion would arrive now
        QCOMPARE(got->size(), 1);
        if (message.isEmpty())
            QVERIFY2(!got->first().isEmpty(), "the failure reached the caller without a message");
        else
            QCOMPARE(got->first(), message);
        if (r.name == "update check") // the reason is logged
            QVERIFY(!log.lines().filter(QRegularExpression("^Error: |^.AppUpdateManager. Latest Version")).isEmpty());
        QCOMPARE(snapshot(), before);
        QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().password, QStringLiteral("kept-pass"));
    }

    // A package that does not arrive whole is never installed, and the one already in
    // Downloads stays.
    void brokenUpdateDownload_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::newRow("cut short") << QString() << QJsonValue();
        QTest::newRow("closed") << "close" << QJsonValue();
        QTest::newRow("error page") << "status" << QJsonValue(500);
        QTest::newRow("stalls") << "delay" << QJsonValue(3000);
    }
    void brokenUpdateDownload()
    {
        QFETCH(QString, kind);
        QFETCH(QJsonValue, value);
        QTcpServer cutter;
        cutter.listen(QHostAddress::LocalHost, 0);
        connect(&cutter, &QTcpServer::newConnection, this, [&cutter] {
            QTcpSocket *s = cutter.nextPendingConnection();
            connect(s, &QTcpSocket::readyRead, s, [s] { s->write(kCutShort), s->disconnectFromHost(); });
        });
        makeWorld(m_backend.baseUrl(),
                  kind.isEmpty() ? QStringLiteral("http://127.0.0.1:%1/p.deb").arg(cutter.serverPort()) : QString());
        NQConfig::setHttpTimeoutForTesting(0.4);
        if (!kind.isEmpty())
            QVERIFY(m_backend.fault("/update/PelorinVPN.deb", kind, value));
        QDir().mkpath(path("Downloads"));
        writeFile(path("Downloads/PelorinVPN.deb"), "the package installed last time");
        int ready = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::NOTIFICATION_APP_READY),
                                              [&ready](const Event &) { ++ready; });
        const QByteArray before = snapshot();
        LogCapture log;
        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        updates.downloadAndInstallPKG();
        QTRY_COMPARE_WITH_TIMEOUT(ready, 1, 10000);
        QVERIFY(!updates.isDownloading());
        QCOMPARE(log.lines().filter("|AppUpdateManager| Download error: ").size(), 1);
        QVERIFY(!QFile::exists(path("installed")));
        QCOMPARE(QDir(path("Downloads")).entryList(QDir::Files | QDir::Hidden), QStringList{"PelorinVPN.deb"});
        QCOMPARE(contentOf(path("Downloads/PelorinVPN.deb")), QByteArray("the package installed last time"));
        QCOMPARE(snapshot(), before);
    }
};

QTEST_GUILESS_MAIN(TestFaultBackend)
#include "tst_fault_backend.moc"
