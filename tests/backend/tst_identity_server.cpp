#include "BackendFixture.h"
#include "DevBackendProcess.h"
#include "backend/BackendAnswers.h"
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "support/LogCapture.h"

#include <QtTest>

namespace {
const QString kIdentityDomain = "com.pelorin.vpn.mac.identity.error";
const QString kNotJson = "Deserialize response body failed for request '%1'.";
} // namespace

class TestIdentityServer : public QObject {
    Q_OBJECT

    DevBackendProcess m_backend;
    std::unique_ptr<BackendFixture> m_fixture;
    int calls = 0;
    NQIdentityServer &server() { return NQIdentityServer::sharedManager(); }
    AppStorageManager &storage() { return m_fixture->storage(); }
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

private slots:
    void initTestCase() { QVERIFY(m_backend.start()); }
    void init()
    {
        m_fixture = std::make_unique<BackendFixture>(m_backend.baseUrl());
        m_backend.reset();
        calls = 0;
    }
    void cleanup() { m_fixture.reset(); }

    // The links as sent, null where the backend sent null; no links and an error for a body
    // that is not JSON. Neither key nor mark goes out.
    void labelSettings()
    {
        QStringList links;
        NQErrorOpt error;
        const auto ask = [&] {
            server().labelsettingsForLabelID(
                "20014", "D", "secret-key", 1, "en", "1.0",
                [&](const QString &s, const QString &in, const QString &un, const NQErrorOpt &e) {
                    links = {s, in, un}, error = e, ++calls;
                });
        };
        LogCapture log;
        ask();
        QVERIFY(waitForCall(1));
        QVERIFY(!error);
        const QString base = m_backend.baseUrl();
        QCOMPARE(links, (QStringList{base + "/support", base + "/welcome", base + "/goodbye"}));
        const QString path = "/api1/Configuration/labelsettings/20014/en/D/1.0";
        QCOMPARE(m_backend.requests().at(0)["path"].toString(), path);
        QCOMPARE(log.lines().mid(0, 4),
                 (QStringList{"Request labelsettings", "Request labelsettings. endpointUrl = '" + base + path + "'",
                              "Request labelsettings. request success",
                              "Request labelsettings. request success. response body deserialized"}));

        QVERIFY(m_backend.fault("/api1/Configuration/labelsettings", "nulls", "support,linkafteruninstall", 1));
        ask();
        QVERIFY(waitForCall(2));
        QVERIFY(!error);
        QCOMPARE(links, (QStringList{QString(), base + "/welcome", QString()}));
        QVERIFY(links[0].isNull() && links[2].isNull());

        QVERIFY(m_backend.fault("/api1/Configuration/labelsettings", "non-json"));
        ask();
        QVERIFY(waitForCall(3));
        QCOMPARE(error->domain(), kIdentityDomain);
        QCOMPARE(error->code(), -1);
        QCOMPARE(error->localizedDescription(), kNotJson.arg("labelsettings"));
        QVERIFY(links[0].isNull() && links[1].isNull() && links[2].isNull());
    }

    void extensionLink()
    {
        bool success = false;
        QString url;
        NQErrorOpt error;
        const auto ask = [&](const QString &browser) {
            server().fetchBrowserExtensionConfigForLabelID(
                "20014", browser,
                [&](bool s, const QString &u, const NQErrorOpt &e) { success = s, url = u, error = e, ++calls; });
        };
        LogCapture log;
        ask("chrome");
        QVERIFY(waitForCall(1));
        QVERIFY(success && !error);
        QVERIFY(url.endsWith("kembcdlbgbcnnchcnbdhbmbhbejnedjf"));
        QCOMPARE(m_backend.requests().last()["path"].toString(), "/api1/Configuration/extensiondownload/20014/chrome");
        QCOMPARE(log.lines().first(), "Request BrowseConfiguration");

        ask("opera"); // the backend knows no link: success false and no url
        QVERIFY(waitForCall(2));
        QVERIFY(!success && url.isNull());
        QCOMPARE(error->localizedDescription(),
                 "Deserialize key 'url' from response body failed for request 'BrowseConfiguration'.");

        QVERIFY(m_backend.fault("/api1/Configuration/extensiondownload", "nulls", "url"));
        ask("chrome");
        QVERIFY(waitForCall(3));
        QVERIFY(success);
        QCOMPARE(error->code(), -1);
    }

    // Eight keys, "country" only when known; the backend's acknowledgement is the answer.
    void installEvent()
    {
        LogCapture log;
        bool sent = false;
        const auto report = [&](const QString &country, bool install) {
            server().reportAnalyticsEventForLabelID("20014", "DEV", "MACHINE", "de", country, "2.1.0", 7, install,
                                                    [&](bool s, const NQErrorOpt &e) { sent = s && !e, ++calls; });
        };
        report(QString(), true);
        QVERIFY(waitForCall(1));
        QVERIFY(sent);
        const QJsonObject request = m_backend.requests().last().toObject();
        QCOMPARE(request["method"].toString(), "POST");
        QCOMPARE(request["path"].toString(), "/Configuration/installstats");
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
        QCOMPARE(log.lines().first(), "Request report install-event");
        QVERIFY(log.lines()[1].startsWith("Request report install-event. endpointUrl = '" + m_backend.baseUrl() +
                                          "/Configuration/installstats'. parameters = '{\n    appVer = \"2.1.0\";\n"));
        QCOMPARE(log.lines()[2], "Request install-event. request success");

        report("AT", false);
        QVERIFY(waitForCall(2));
        const QJsonObject second =
            QJsonDocument::fromJson(m_backend.requests().last()["body"].toString().toUtf8()).object();
        QCOMPARE(second.size(), 9);
        QCOMPARE(second["country"].toString(), "AT");
        QCOMPARE(second["isInstall"], QJsonValue(false));
    }

    void registerVpnApiStoresTheDevicesAccount()
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
        QVERIFY(log.lines().contains("|IdentityService| registerVpnApi Success"));
        QVERIFY(log.lines().contains(
            QStringLiteral(
                "|IdentityService| registerVpnApi response credentials: Username length: %1 Password length: 24")
                .arg(first[0].size())));
        for (const QString &line : log.lines())
            QVERIFY2(!line.startsWith("|IdentityService|") || !line.contains(first[1]), qPrintable(line));
        QCOMPARE(registerApi(), first); // the same device gets the same account
    }

    // Each missing (or null) key is logged; a missing value clears its stored item.
    void missingKeysClearCredentials()
    {
        storage().storeVPNCredentials("old-user", "old-pass");
        QVERIFY(m_backend.fault("/api1/vpnapi/create", "missing-keys", {}, 1));
        LogCapture log;
        QCOMPARE(registerApi(), (QStringList{QString(), QString(), QString()}));
        const QStringList missing = log.lines().filter("Request registerVpn. failed = '");
        QCOMPARE(missing.size(), 4);
        const QStringList keys{"success", "message", "username", "password"};
        for (int i = 0; i < 4; ++i)
            QVERIFY2(missing[i].contains("Missing key ('" + keys[i] + "')") && missing[i].contains("Code=-32"),
                     qPrintable(missing[i]));
        QVERIFY(log.lines().contains("|IdentityService| registerVpnApi response credentials FAILED"));
        QVERIFY(storage().getVpnCredentials().username.isNull());
        QVERIFY(storage().getVpnCredentials().password.isNull());

        storage().storeVPNCredentials("old-user", "old-pass");
        QVERIFY(m_backend.fault("/api1/vpnapi/create", "nulls", "password"));
        log.clear();
        const QStringList got = registerApi();
        QVERIFY(!got[0].isEmpty() && got[1].isNull() && got[2].isNull());
        QCOMPARE(log.lines().filter("Missing key ('").size(), 1);
        QCOMPARE(storage().getVpnCredentials().username, got[0]);
        QVERIFY(storage().getVpnCredentials().password.isNull());
    }

    // Readers of single answers; reals past the integer range must not be converted blindly
    // (undefined behaviour, caught by the sanitizer builds).
    void answerValues_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("success"); // registerVpn's "success"; -1: not asked
        QTest::addColumn<bool>("sent");   // installEventSent
        QTest::newRow("huge real") << QByteArray("{\"success\":1e65}") << 1 << false;
        QTest::newRow("huge negative real") << QByteArray("{\"success\":-1e300}") << 1 << false;
        QTest::newRow("fraction") << QByteArray("{\"success\":0.5}") << 0 << false;
        QTest::newRow("leading digits") << QByteArray("{\"success\":\" 17x\"}") << 1 << false;
        QTest::newRow("word") << QByteArray("{\"success\":\"yes\"}") << 0 << false;
        QTest::newRow("sent true") << QByteArray("{\"sent\":true}") << -1 << true;
        QTest::newRow("sent one") << QByteArray("{\"sent\":1}") << -1 << true;
        QTest::newRow("sent zero") << QByteArray("{\"sent\":0}") << -1 << false;
        QTest::newRow("sent false") << QByteArray("{\"sent\":false}") << -1 << false;
        QTest::newRow("sent text") << QByteArray("{\"sent\":\"1\"}") << -1 << false;
        QTest::newRow("not json") << QByteArray("sent") << -1 << false;
    }
    void answerValues()
    {
        QFETCH(QByteArray, body);
        QFETCH(int, success);
        QFETCH(bool, sent);
        LogCapture log;
        const auto result = BackendRequest::resultForBody(body, "x");
        QCOMPARE(BackendAnswers::installEventSent(result), sent);
        if (success >= 0) {
            const auto answer = BackendAnswers::registerVpn(result, "%1");
            QVERIFY(!answer.error);
            QCOMPARE(answer.response.success, bool(success));
        }
    }

    // Every failure: the error reaches the caller and the stored pair stays.
    void failuresKeepStoredCredentials_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("domain");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("array") << "wrong-shape" << QJsonValue() << kIdentityDomain << -21 << "Response unknown";
        QTest::newRow("non-json") << "non-json" << QJsonValue() << kIdentityDomain << -1 << kNotJson.arg("registerVpn");
        QTest::newRow("error page") << "status" << QJsonValue(503) << kIdentityDomain << -1
                                    << kNotJson.arg("registerVpn");
        QTest::newRow("closed") << "close" << QJsonValue() << "NSURLErrorDomain" << -1005
                                << "The network connection was lost.";
        QTest::newRow("time-out") << "delay" << QJsonValue(5000) << "NSURLErrorDomain" << -1001
                                  << "The request timed out.";
    }
    void failuresKeepStoredCredentials()
    {
        QFETCH(QString, kind);
        QFETCH(QJsonValue, value);
        QFETCH(QString, domain);
        QFETCH(int, code);
        QFETCH(QString, text);
        NQConfig::setHttpTimeoutForTesting(0.5);
        storage().storeVPNCredentials("kept-user", "kept-pass");
        QVERIFY(m_backend.fault("/api1/vpnapi/create", kind, value));
        LogCapture log;
        NQErrorOpt error;
        server().registerVpnForLabelID(
            "20014", "DEV", "", 2, false,
            [&](const NQIdentityServer::RegisterVpnResponse &, const NQErrorOpt &e) { error = e, ++calls; });
        QVERIFY(waitForCall(1));
        QCOMPARE(error->domain(), domain);
        QCOMPARE(error->code(), code);
        QCOMPARE(error->localizedDescription(), text);
        if (code == -21)
            QVERIFY(
                log.lines().contains("Request: registerVpn FAILED with error: '" + error->debugDescription() + "'."));

        QCOMPARE(registerApi(), (QStringList{QString(), QString(), text}));
        QCOMPARE(storage().getVpnCredentials().username, "kept-user");
        QCOMPARE(storage().getVpnCredentials().password, "kept-pass");
        QCOMPARE(log.lines().filter("|IdentityService| registerVpnApi Error: ").size(), 1);
    }

    void tesselDates_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QDateTime>("expected");
        const auto utc = [](int day, int h) {
            return QDateTime(QDate(2024, 3, day), QTime(h, 20, 30), QTimeZone::utc());
        };
        QTest::newRow("zulu") << "2024-03-01T10:20:30Z" << utc(1, 10);
        QTest::newRow("offset") << "2024-03-01T10:20:30+02:00" << utc(1, 8);
        QTest::newRow("widest offset") << "2024-03-01T10:20:30-14:00" << utc(2, 0);
        QTest::newRow("local") << "2024-03-01T23:20:30" << QDateTime(QDate(2024, 3, 1), QTime(23, 20, 30));
        QTest::newRow("garbage") << "01.03.2024" << QDateTime();
        QTest::newRow("bad month") << "2024-13-01T10:20:30Z" << QDateTime();
        QTest::newRow("offset past 14 hours") << "2024-03-01T10:20:30+42:00" << QDateTime();
        QTest::newRow("offset minutes past 59") << "2024-03-01T10:20:30-0175" << QDateTime();
    }
    void tesselDates()
    {
        QFETCH(QString, text);
        QFETCH(QDateTime, expected);
        const auto parsed = NQIdentityServer::dateFromTesselString(text);
        QCOMPARE(parsed.value_or(QDateTime()).toMSecsSinceEpoch(), expected.toMSecsSinceEpoch());
        QCOMPARE(parsed.has_value(), expected.isValid());
    }
};

QTEST_MAIN(TestIdentityServer)
#include "tst_identity_server.moc"
