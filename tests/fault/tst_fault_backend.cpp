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

struct Outcome {
    int calls = 0;
    QString message;
};
using Outcomes = std::shared_ptr<Outcome>;
void done(const Outcomes &o, const QString &message)
{
    ++o->calls;
    o->message = message;
}
QString text(const NQErrorOpt &e)
{
    return e ? e->localizedDescription() : QString();
}

// One entry per request of the client: its path on the backend and how to send it.
struct Request {
    QString name, prefix;
    std::function<void(const Outcomes &)> send;
};
const QList<Request> &requests()
{
    static const QList<Request> all{
        {"label settings", "/api1/Configuration/labelsettings",
         [](const Outcomes &o) {
             NQIdentityServer::sharedManager().labelsettingsForLabelID(
                 "20014", AppConfig::deviceUniqueID(), {}, 1, "en", "2.1.0",
                 [o](const auto &, const auto &, const auto &, const NQErrorOpt &e) { done(o, text(e)); });
         }},
        {"extension link", "/api1/Configuration/extensiondownload",
         [](const Outcomes &o) {
             NQIdentityServer::sharedManager().fetchBrowserExtensionConfigForLabelID(
                 "20014", "chrome", [o](bool, const QString &, const NQErrorOpt &e) { done(o, text(e)); });
         }},
        {"install stats", "/Configuration/installstats",
         [](const Outcomes &o) {
             NQIdentityServer::sharedManager().reportAnalyticsEventForLabelID(
                 "20014", "DEV", "MACHINE", "en", {}, "2.1.0", 0, true,
                 [o](bool sent, const NQErrorOpt &e) { done(o, e || sent ? text(e) : QStringLiteral("not sent")); });
         }},
        {"registerVpn", "/api1/vpnapi/create",
         [](const Outcomes &o) {
             NQIdentityServer::sharedManager().registerVpnApi(
                 [o](const QString &, const QString &, const QString &error) { done(o, error); });
         }},
        {"location", "/api1/helper/iptocountry",
         [](const Outcomes &o) {
             BackofficeApiDesktop::checkMyLocation(
                 [o](const QString &, const QString &, const QString &, const QString &error) { done(o, error); });
         }},
        {"countries", "/api1/vpnapi/serverlist",
         [](const Outcomes &o) {
             NQVPNManager::sharedManager().getCountries(
                 [o](const QList<NQVPNCountry> &, const NQErrorOpt &e) { done(o, text(e)); });
         }},
        {"profile", "/api1/vpnapi/serverovpn",
         [](const Outcomes &o) {
             NQVPNManager::sharedManager().getCountryVPNConfig(
                 101, [o](const QString &, const QString &, const NQErrorOpt &e) { done(o, text(e)); });
         }},
        // A failed check means "no update"; the reason is in the log.
        {"update check", "/update/latest",
         [](const Outcomes &o) {
             AppUpdateManager::sharedManager().checkForUpdateWithCompletion(
                 [o](bool available) { done(o, available ? QStringLiteral("update") : QStringLiteral("no update")); });
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

// Answers one request with a header that promises more bytes than follow, then hangs up.
class TruncatingServer : public QTcpServer {
public:
    TruncatingServer()
    {
        listen(QHostAddress::LocalHost, 0);
        connect(this, &QTcpServer::newConnection, this, [this] {
            QTcpSocket *s = nextPendingConnection();
            connect(s, &QTcpSocket::readyRead, s, [s] {
                s->write("HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: 65536\r\n\r\n" +
                         QByteArray(1000, 'p'));
                s->disconnectFromHost();
            });
        });
    }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1/PelorinVPN.deb").arg(serverPort()); }
};

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
        store.storeSupportLink("https://support.example/kept");
        store.storeAppLanguageCode("de");
        store.storeVPNStatus(1);
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
        auto outcome = std::make_shared<Outcome>();
        r.send(outcome);
        QTRY_VERIFY_WITH_TIMEOUT(outcome->calls > 0, 10000);
        QTest::qWait(100); // a second completion would arrive now
        QCOMPARE(outcome->calls, 1);
        qInfo().noquote() << "message:" << outcome->message;
        if (message.isEmpty())
            QVERIFY2(!outcome->message.isEmpty(), "the failure reached the caller without a message");
        else
            QCOMPARE(outcome->message, message);
        if (r.name == "update check") // the reason is logged
            QVERIFY(
                !log.lines().filter(QRegularExpression("^Error: .+|^\\|AppUpdateManager\\| Latest Version")).isEmpty());
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
        TruncatingServer cutter;
        makeWorld(m_backend.baseUrl(), kind.isEmpty() ? cutter.url() : QString());
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
        const QStringList errors = log.lines().filter("|AppUpdateManager| Download error: ");
        QCOMPARE(errors.size(), 1);
        qInfo().noquote() << errors.first();
        QVERIFY(!QFile::exists(path("installed")));
        QCOMPARE(QDir(path("Downloads")).entryList(QDir::Files | QDir::Hidden), QStringList{"PelorinVPN.deb"});
        QCOMPARE(contentOf(path("Downloads/PelorinVPN.deb")), QByteArray("the package installed last time"));
        QCOMPARE(snapshot(), before);
    }
};

QTEST_GUILESS_MAIN(TestFaultBackend)
#include "tst_fault_backend.moc"
