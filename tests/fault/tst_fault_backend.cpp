// Every request the client makes, against a real development backend told to misbehave: each
// fault ends in exactly one completion that carries a message, and the settings file and the
// stored credentials are byte for byte what they were.
#include "backend/BackendFixture.h"
#include "backend/BackofficeApiDesktop.h"
#include "backend/DevBackendProcess.h"
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
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

// One entry per request of the client: its path on the backend, what the caller learns of an
// answer it cannot read (and of one of the wrong shape, when that differs), and how to send it
// and hand on what the caller learns (the error text; empty when it learns of no failure).
using Report = std::function<void(const QString &)>;
struct Request {
    QString name, prefix, unreadable, wrongShape;
    std::function<void(Report)> send;
};
const QString kNotJson = "Deserialize response body failed for request '%1'.";
NQIdentityServer &server()
{
    return NQIdentityServer::sharedManager();
}
const QList<Request> &requests()
{
    static const QList<Request> all{
        {"label settings", "/api1/Configuration/labelsettings", kNotJson.arg("labelsettings"), QString(),
         [](Report r) {
             server().labelsettingsForLabelID("20014", AppConfig::deviceUniqueID(), {}, 1, "en", "2.1.0",
                                              [r](auto &, auto &, auto &, const NQErrorOpt &e) { r(text(e)); });
         }},
        {"extension link", "/api1/Configuration/extensiondownload", kNotJson.arg("BrowseConfiguration"),
         "Deserialize key 'url' from response body failed for request 'BrowseConfiguration'.",
         [](Report r) {
             server().fetchBrowserExtensionConfigForLabelID(
                 "20014", "chrome", [r](bool, const QString &, const NQErrorOpt &e) { r(text(e)); });
         }},
        {"install stats", "/Configuration/installstats", kNotJson.arg("install-event"), "not sent",
         [](Report r) {
             server().reportAnalyticsEventForLabelID(
                 "20014", "DEV", "MACHINE", "en", {}, "2.1.0", 0, true,
                 [r](bool sent, const NQErrorOpt &e) { r(e || sent ? text(e) : QStringLiteral("not sent")); });
         }},
        {"registerVpn", "/api1/vpnapi/create", kNotJson.arg("registerVpn"), "Response unknown",
         [](Report r) { server().registerVpnApi([r](auto &, auto &, const QString &error) { r(error); }); }},
        {"location", "/api1/helper/iptocountry", "Deserialize response failed.", "Parse response failed.",
         [](Report r) {
             BackofficeApiDesktop::checkMyLocation([r](auto &, auto &, auto &, auto &error) { r(error); });
         }},
        {"countries", "/api1/vpnapi/serverlist", kNotJson.arg("getCountries"), QString(),
         [](Report r) {
             NQVPNManager::sharedManager().getCountries([r](auto &, const NQErrorOpt &e) { r(text(e)); });
         }},
        {"profile", "/api1/vpnapi/serverovpn", kNotJson.arg("getCountryVPNConfig"), QString(),
         [](Report r) {
             NQVPNManager::sharedManager().getCountryVPNConfig(101, [r](auto &, auto &, auto &e) { r(text(e)); });
         }},
        // A failed check means "no update"; the reason is in the log.
        {"update check", "/update/latest", "no update", QString(),
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
    std::unique_ptr<BackendFixture> m_world;
    QString path(const QString &name) const { return m_world->path(name); }

    // Points the client at `host`; the user has settings, the device identifier and an account.
    void makeWorld(const QString &host, const QString &packageUrl = {})
    {
        m_world = std::make_unique<BackendFixture>(host, packageUrl);
        BackendFixture::write(path("installer.sh"), "#!/bin/sh\necho \"$@\" >> \"$(dirname \"$0\")/installed\"\n");
        QFile::setPermissions(path("installer.sh"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
        AppUpdateManager::setSharedManagerForTesting(nullptr);
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
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        NQVPNManager::setSharedManagerForTesting(nullptr);
        m_world.reset();
        EventBus::defaultCenter().reset();
    }

    void everyRequestUnderEveryFault_data()
    {
        QTest::addColumn<int>("request");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("message");
        const QString truncated = QStringLiteral("{\"success\": 1, \"username\": \"pv-new\", \"passw");
        for (int i = 0; i < requests().size(); ++i) {
            const Request &r = requests()[i];
            const QString name = r.name;
            const bool update = name == "update check";
            const QString refused = update ? "no update" : "Could not connect to the server.";
            const QString late = update ? "no update" : "The request timed out.";
            const QString unreadable = r.unreadable;
            QTest::addRow("%s: down", qPrintable(name)) << i << "down" << QJsonValue() << refused;
            QTest::addRow("%s: slow", qPrintable(name)) << i << "delay" << QJsonValue(3000) << late;
            QTest::addRow("%s: 500 page", qPrintable(name)) << i << "status" << QJsonValue(500) << unreadable;
            QTest::addRow("%s: html", qPrintable(name)) << i << "non-json" << QJsonValue() << unreadable;
            QTest::addRow("%s: truncated", qPrintable(name)) << i << "body" << QJsonValue(truncated) << unreadable;
            QTest::addRow("%s: wrong shape", qPrintable(name))
                << i << "wrong-shape" << QJsonValue() << (r.wrongShape.isEmpty() ? unreadable : r.wrongShape);
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
        BackendFixture::write(path("Downloads/PelorinVPN.deb"), "the package installed last time");
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
