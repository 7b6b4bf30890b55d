// The backend client against a real pelorin-devbackend: the request machinery, the identity
// service's calls, reachability, the location check, and every request of the client under
// every misbehaviour of the backend.
#include "DevBackendProcess.h"
#include "backend/BackendAnswers.h"
#include "backend/BackendRequest.h"
#include "backend/BackofficeApiDesktop.h"
#include "backend/NQIdentityServer.h"
#include "backend/NetworkUtils.h"
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/MainQueue.h"
#include "foundation/NQConfig.h"
#include "platform/linux/LinuxPlatform.h"
#include "shell/AppUpdateManager.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "vpn/NQVPNManager.h"

#include <QTcpServer>
#include <QThread>
#include <QtTest>

namespace {

const QString kIdentityDomain = "com.pelorin.vpn.mac.identity.error";
const QString kNotJson = "Deserialize response body failed for request '%1'.";

struct Outcome {
    int calls = 0;
    BackendRequest::Result result;
};

// Sends and waits until the completion ran, then lets anything queued behind it run too.
Outcome run(BackendRequest::Options options)
{
    auto outcome = std::make_shared<Outcome>();
    BackendRequest::send(std::move(options), [outcome](const BackendRequest::Result &result) {
        ++outcome->calls;
        outcome->result = result;
    });
    const bool ran = outcome->calls > 0; // never from inside send()
    if (ran || !QTest::qWaitFor([&] { return outcome->calls > 0; }, 10000))
        outcome->calls = -1;
    QCoreApplication::processEvents();
    return *outcome;
}

BackendRequest::Options probe(const QString &url)
{
    BackendRequest::Options s;
    s.log = BackendRequest::LogLines::named("probe");
    s.url = url;
    return s;
}

// An address where nobody listens.
QString closedPortUrl()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
}

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

} // namespace

class TestBackend : public QObject {
    Q_OBJECT

    DevBackendProcess m_backend;
    std::unique_ptr<QTemporaryDir> m_dir;
    int calls = 0;
    AppStorageManager &storage() { return AppStorageManager::sharedManager(); }
    QString path(const QString &name) const { return m_dir->filePath(name); }
    QByteArray snapshot() const { return contentOf(path("settings.conf")) + '\0' + contentOf(path("secrets.json")); }

    // Points the client at `host`, with settings and keychain files of this test's own.
    void makeWorld(const QString &host)
    {
        cleanup();
        m_dir = std::make_unique<QTemporaryDir>();
        QDir().mkpath(path("res"));
        const auto plist = [this](const QString &name, const QString &body) {
            writeFile(path("res/" + name), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" +
                                               body.toUtf8() + "</dict></plist>\n");
        };
        plist("CommonConfig.plist", "<key>Host URL</key><string>" + host + "</string>");
        plist("ReleaseConfig.plist", "<key>UpdateUrlLatestVersion</key><string>" + host + "/update/latest</string>");
        Platform::setInstance(
            std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.temporaryDirectory = path("tmp"),
                                                                     .applicationSupportDirectory = path("support"),
                                                                     .resourcesDirectory = path("res")}));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            path("settings.conf"),
            KeychainStore(KeychainStore::defaultService(), std::make_shared<FileSecretBackend>(path("secrets.json")))));
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
        NetworkUtils::setRequestAddressForTesting(host);
    }
    bool waitForCall(int n)
    {
        return QTest::qWaitFor([&] { return calls == n; }, 10000);
    }

    // registerVpnApi, waited for: user name, password, error text.
    QStringList registerApi()
    {
        QStringList got;
        const int before = calls;
        server().registerVpnApi([&](const QString &u, const QString &p, const QString &e) {
            got = {u, p, e}, ++calls;
        });
        if (!QTest::qWaitFor([&] { return calls > before; }, 15000))
            return {"registerVpnApi did not complete"};
        return got;
    }

    // A location check: its completions (100 for one off the main thread) and ip, country,
    // country name, error.
    std::shared_ptr<std::pair<int, QStringList>> locate()
    {
        auto got = std::make_shared<std::pair<int, QStringList>>();
        BackofficeApiDesktop::checkMyLocation(
            [got](const QString &ip, const QString &c, const QString &n, const QString &e) {
                got->first += MainQueue::isMainThread() ? 1 : 100;
                got->second = {ip, c, n, e};
            });
        return got;
    }

    // Both reachability checks: the blocking one's answer, and the other's error text.
    std::pair<bool, QString> online()
    {
        const bool blocking = NetworkUtils::checkIsInternetAvailable();
        QString error = "not called";
        NetworkUtils::checkIsInternetAvailableWithCompletion([&](const QString &e) { error = e; });
        const bool answered = QTest::qWaitFor([&] { return error != "not called"; }, 10000);
        return {blocking && answered, error};
    }

private slots:
    void initTestCase() { QVERIFY(m_backend.start({"--country", "127.0.0.1=FR:France"})); }
    void init()
    {
        makeWorld(m_backend.baseUrl());
        m_backend.reset();
        calls = 0;
    }
    void cleanup()
    {
        NetworkUtils::setRequestAddressForTesting({});
        NQConfig::setHttpTimeoutForTesting(60);
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        NQVPNManager::setSharedManagerForTesting(nullptr);
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
        EventBus::defaultCenter().reset();
    }

    // Any status is an answer (an error page is a body that does not parse); only a failure
    // below HTTP is a transport error. Each ends in one completion, on the main thread.
    void requestOutcomes_data()
    {
        QTest::addColumn<QString>("kind"); // the backend's fault
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("domain"); // empty: no error
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("answer") << QString() << 200 << QString() << 0 << QString();
        QTest::newRow("error page") << "status" << 502 << kIdentityDomain << -1 << kNotJson.arg("probe");
        QTest::newRow("closed without answer")
            << "close" << 0 << "NSURLErrorDomain" << -1005 << "The network connection was lost.";
        QTest::newRow("never answers") << "delay" << 0 << "NSURLErrorDomain" << -1001 << "The request timed out.";
    }
    void requestOutcomes()
    {
        QFETCH(QString, kind);
        QFETCH(int, status);
        QFETCH(QString, domain);
        QFETCH(int, code);
        QFETCH(QString, text);
        NQConfig::setHttpTimeoutForTesting(0.4);
        const QJsonValue value = kind == "delay" ? QJsonValue(5000) : QJsonValue(status);
        if (!kind.isEmpty())
            QVERIFY(m_backend.fault("/", kind, value));
        const QString url = m_backend.baseUrl() + "/api1/helper/iptocountry";
        LogCapture log;
        const Outcome o = run(probe(url));
        QCOMPARE(o.calls, 1);
        QCOMPARE(o.result.httpStatus, status);
        QStringList expected{"Request probe", "Request probe. endpointUrl = '" + url + "'"};
        if (status == 0)
            expected << "Request probe. failed = '" + o.result.error->debugDescription() + "'";
        else
            expected << "Request probe. request success";
        if (domain.isEmpty()) {
            expected << "Request probe. request success. response body deserialized";
        } else {
            QCOMPARE(o.result.error->domain(), domain);
            QCOMPARE(o.result.error->code(), code);
            QCOMPARE(o.result.error->localizedDescription(), text);
            QCOMPARE(o.result.error->userInfo().contains("NSUnderlyingError"), status != 0);
        }
        expected << "Request probe. request finish. response body = " +
                        (status == 0 ? "(null)" : QString::fromUtf8(o.result.body));
        QCOMPARE(log.lines(), expected);
    }

    // A body goes out compact and is described on the endpoint line; started from another
    // thread, the request still completes once, on the main thread. A value without a JSON
    // form, at any depth, stops the request before anything is sent.
    void postBodies()
    {
        BackendRequest::Options s = probe(m_backend.baseUrl() + "/Configuration/installstats");
        s.method = "POST";
        s.jsonBody = QVariantMap{{"b", 2}, {"a", "x y"}};
        s.log.endpoint = "Request probe. endpointUrl = '%1'. parameters = '%2'";
        LogCapture log;
        auto done = std::make_shared<std::atomic<int>>(0);
        auto mainThread = std::make_shared<std::atomic<bool>>(false);
        std::unique_ptr<QThread> worker(QThread::create([&] {
            BackendRequest::send(s, [done, mainThread](const BackendRequest::Result &r) {
                mainThread->store(MainQueue::isMainThread() && r.json.isObject());
                ++*done;
            });
        }));
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(done->load(), 1, 10000);
        worker->wait();
        QVERIFY(mainThread->load());
        QCOMPARE(m_backend.requests()[0].toObject()["body"].toString(), "{\"a\":\"x y\",\"b\":2}");
        QCOMPARE(log.lines().value(1),
                 "Request probe. endpointUrl = '" + s.url + "'. parameters = '{\n    a = \"x y\";\n    b = 2;\n}'");

        m_backend.reset();
        for (const QVariant &bad : {QVariant(QString()), QVariant(QVariantList{1, QString()})}) {
            s.jsonBody = QVariantMap{{"mac", bad}};
            log.clear();
            const Outcome o = run(s);
            QCOMPARE(o.calls, 1);
            QCOMPARE(o.result.error->localizedDescription(), "Cannot serialze request body for request 'probe'.");
            QCOMPARE(o.result.error->code(), -1);
            QVERIFY(m_backend.requests().isEmpty());
            QCOMPARE(log.lines().last(), "Request probe. failed = '" + o.result.error->debugDescription() + "'");
        }
    }

    // The label's links (neither key nor mark goes out), the extension link, and the install
    // event: eight keys, "country" only when known; the backend's acknowledgement is the answer.
    void identityRequests()
    {
        QStringList links;
        server().labelsettingsForLabelID(
            "20014", "D", "secret-key", 1, "en", "1.0",
            [&](const QString &s, const QString &in, const QString &un, const NQErrorOpt &) {
                links = {s, in, un}, ++calls;
            });
        QVERIFY(waitForCall(1));
        const QString base = m_backend.baseUrl();
        QCOMPARE(links, (QStringList{base + "/support", base + "/welcome", base + "/goodbye"}));
        QCOMPARE(m_backend.requests().at(0)["path"].toString(), "/api1/Configuration/labelsettings/20014/en/D/1.0");

        bool success = false;
        QString url;
        server().fetchBrowserExtensionConfigForLabelID(
            "20014", "chrome", [&](bool s, const QString &u, const NQErrorOpt &) { success = s, url = u, ++calls; });
        QVERIFY(waitForCall(2));
        QVERIFY(success);
        QVERIFY(url.endsWith("kembcdlbgbcnnchcnbdhbmbhbejnedjf"));
        QCOMPARE(m_backend.requests().last()["path"].toString(), "/api1/Configuration/extensiondownload/20014/chrome");

        bool sent = false;
        server().reportAnalyticsEventForLabelID("20014", "DEV", "MACHINE", "de", QString(), "2.1.0", 7, true,
                                                [&](bool s, const NQErrorOpt &e) { sent = s && !e, ++calls; });
        QVERIFY(waitForCall(3));
        QVERIFY(sent);
        const QJsonObject request = m_backend.requests().last().toObject();
        QCOMPARE(request["headers"]["content-type"].toString(), "application/json");
        QCOMPARE(QJsonDocument::fromJson(request["body"].toString().toUtf8()).object(),
                 (QJsonObject{{"appVer", "2.1.0"},
                              {"isInstall", true},
                              {"isoLang", "de"},
                              {"labelId", "20014"},
                              {"lang", "de"},
                              {"mac", "DEV"},
                              {"machineId", "MACHINE"},
                              {"mark", 0}}));
    }

    // The device's account is stored and logged without its password. Each missing (or null)
    // key is logged; a missing value clears its stored item.
    void registerVpnApi()
    {
        storage().storeAccountKey("abc-key");
        LogCapture log;
        const QStringList first = registerApi();
        QVERIFY(first[0].startsWith("pv"));
        QCOMPARE(first[1].size(), 24);
        QVERIFY(first[2].isNull());
        QCOMPARE(storage().getVpnCredentials().username, first[0]);
        QCOMPARE(storage().getVpnCredentials().password, first[1]);
        const QJsonObject request = m_backend.requests().last().toObject();
        QCOMPARE(request["path"].toString(), "/api1/vpnapi/create/20014/ABC-KEY/" + AppConfig::deviceUniqueID());
        QCOMPARE(request["query"].toString(), "deviceType=2&keyFromStore=false&engine=1");
        for (const QString &line : log.lines())
            QVERIFY2(!line.startsWith("|IdentityService|") || !line.contains(first[1]), qPrintable(line));

        QVERIFY(m_backend.fault("/api1/vpnapi/create", "missing-keys", {}, 1));
        log.clear();
        QCOMPARE(registerApi(), (QStringList{QString(), QString(), QString()}));
        QCOMPARE(log.lines().filter("Missing key ('").size(), 4);
        QVERIFY(log.lines().contains("|IdentityService| registerVpnApi response credentials FAILED"));
        QVERIFY(storage().getVpnCredentials().username.isNull());
        QVERIFY(storage().getVpnCredentials().password.isNull());
        QVERIFY(m_backend.fault("/api1/vpnapi/create", "nulls", "password"));
        log.clear();
        const QStringList got = registerApi();
        QVERIFY(!got[0].isEmpty() && got[1].isNull() && got[2].isNull());
        QCOMPARE(log.lines().filter("Missing key ('").size(), 1);
        QVERIFY(log.lines().contains("|IdentityService| registerVpnApi response credentials FAILED"));
    }

    // Readers of single answers; reals past the integer range must not be converted blindly
    // (undefined behaviour, caught by the sanitizer builds).
    void answerValues()
    {
        // body, registerVpn's "success" (-1: not asked), installEventSent
        const std::tuple<QByteArray, int, bool> answers[] = {
            {"{\"success\":1e65}", 1, false},     {"{\"success\":-1e300}", 1, false},  {"{\"success\":0.5}", 0, false},
            {"{\"success\":\" 17x\"}", 1, false}, {"{\"success\":\"yes\"}", 0, false}, {"{\"sent\":true}", -1, true},
            {"{\"sent\":1}", -1, true},           {"{\"sent\":\"1\"}", -1, false},     {"sent", -1, false}};
        for (const auto &[body, success, sent] : answers) {
            const auto result = BackendRequest::resultForBody(body, "x");
            QVERIFY2(BackendAnswers::installEventSent(result) == sent, body.constData());
            if (success >= 0) {
                const auto answer = BackendAnswers::registerVpn(result, "%1");
                QVERIFY2(!answer.error && answer.response.success == bool(success), body.constData());
            }
        }
    }

    void tesselDates()
    {
        const auto utc = [](int day, int h) {
            return QDateTime(QDate(2024, 3, day), QTime(h, 20, 30), QTimeZone::utc());
        };
        const std::pair<const char *, QDateTime> dates[] = {
            {"2024-03-01T10:20:30Z", utc(1, 10)},
            {"2024-03-01T10:20:30+02:00", utc(1, 8)},
            {"2024-03-01T10:20:30-14:00", utc(2, 0)},                                 // the widest offset
            {"2024-03-01T23:20:30", QDateTime(QDate(2024, 3, 1), QTime(23, 20, 30))}, // local time
            {"2024-13-01T10:20:30Z", {}},
            {"2024-03-01T10:20:30+42:00", {}}, // offset past 14 hours
            {"2024-03-01T10:20:30-0175", {}}}; // offset minutes past 59
        for (const auto &[text, expected] : dates) {
            const auto parsed = NQIdentityServer::dateFromTesselString(QString::fromLatin1(text));
            QVERIFY2(
                parsed.has_value() == expected.isValid() &&
                    parsed.value_or(QDateTime()).toMSecsSinceEpoch() == expected.toMSecsSinceEpoch(),
                qPrintable(text + QStringLiteral(" read as ") + parsed.value_or(QDateTime()).toString(Qt::ISODate)));
        }
    }

    // Any answer, an error page included, is online; no answer or one that hangs past the
    // time-out is offline. Without an override the build's address is asked.
    void onlineWhenAnythingAnswers()
    {
        LogCapture log;
        QVERIFY(m_backend.fault("/", "status", 500));
        QCOMPARE(online(), std::pair(true, QString()));
        QCOMPARE(log.count("|NetworkUtils| Device Network Status: ONLINE"), 1);

        NQConfig::setHttpTimeoutForTesting(0.5);
        QVERIFY(m_backend.fault("/", "delay", 5000));
        QCOMPARE(online(), std::pair(false, QString("No internet")));
        NetworkUtils::setRequestAddressForTesting(closedPortUrl());
        log.clear();
        QCOMPARE(online(), std::pair(false, QString("No internet")));
        QCOMPARE(log.lines(), QStringList{"|NetworkUtils| Device Network Status: OFFLINE"});

        NetworkUtils::setRequestAddressForTesting({});
        QCOMPARE(NetworkUtils::RequestAddress(), NQConfig::shared().identityServiceAPI);
    }

    // One check at a time: a second while one is in flight is refused at once, nothing sent.
    // An answer without the address or the country fails; one without the name does not.
    void locationOfTheCaller()
    {
        QVERIFY(m_backend.fault("/api1/helper", "delay", 300, 1));
        const auto first = locate(), second = locate();
        QCOMPARE(second->first, 1);
        QCOMPARE(second->second, (QStringList{QString(), QString(), QString(), "Already called"}));
        QVERIFY(second->second[0].isNull());
        QTRY_COMPARE_WITH_TIMEOUT(first->first, 1, 10000);
        QCOMPARE(first->second, (QStringList{"127.0.0.1", "FR", "France", QString()}));
        QVERIFY(first->second[3].isNull());

        const QString parse = "Parse response failed.";
        const std::tuple<QString, QString, QStringList> spoiled[] = {
            {"missing-keys", "countryName", {"127.0.0.1", "FR", QString(), QString()}},
            {"missing-keys", "ip", {{}, "FR", "France", parse}},
            {"nulls", "country", {"127.0.0.1", {}, "France", parse}}};
        // No count: the session resends once over a fresh connection after a drop.
        for (const auto &[kind, key, answer] : spoiled) {
            m_backend.reset();
            QVERIFY(m_backend.fault("/api1/helper/iptocountry", kind, key));
            const auto got = locate();
            QTRY_COMPARE_WITH_TIMEOUT(got->first, 1, 10000);
            QCOMPARE(got->second, answer);
        }
    }

    // Each fault ends in exactly one completion that carries the request's own message, and
    // the settings file and the stored credentials are byte for byte what they were.
    void everyRequestUnderEveryFault_data()
    {
        QTest::addColumn<int>("request");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("message");
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
        if (kind == "down")
            makeWorld(closedPortUrl());
        else
            QVERIFY(m_backend.fault(r.prefix, kind, value));
        NQConfig::setHttpTimeoutForTesting(0.4);
        (void)AppConfig::deviceUniqueID();
        storage().storeVPNCredentials("kept-user", "kept-pass");
        storage().storeAppLanguageCode("de");
        storage().storeVPNStatus(1);
        storage().flush();
        const QByteArray before = snapshot();
        LogCapture log;
        auto got = std::make_shared<QStringList>();
        r.send([got](const QString &text) { *got << text; });
        QTRY_VERIFY_WITH_TIMEOUT(!got->isEmpty(), 10000);
        QCoreApplication::processEvents(); // a second completion would have been queued by now
        QCOMPARE(got->size(), 1);
        QCOMPARE(got->first(), message);
        if (r.name == "update check") // the reason is logged
            QVERIFY(!log.lines().filter(QRegularExpression("^Error: |^.AppUpdateManager. Latest Version")).isEmpty());
        QCOMPARE(snapshot(), before);
        QCOMPARE(AppStorageManager::sharedManager().getVpnCredentials().password, QStringLiteral("kept-pass"));
    }
};

QTEST_MAIN(TestBackend)
#include "tst_backend.moc"
