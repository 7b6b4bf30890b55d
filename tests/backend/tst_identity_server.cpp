#include "BackendFixture.h"
#include "DevBackendProcess.h"
#include "backend/BackendAnswers.h"
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "support/LogCapture.h"

#include <QtTest>

namespace {

const QString kIdentityDomain = QStringLiteral("com.pelorin.vpn.mac.identity.error");

struct ApiOutcome {
    int calls = 0;
    QString username, password, errorText;
};

} // namespace

class TestIdentityServer : public QObject {
    Q_OBJECT
private:
    DevBackendProcess m_backend;
    std::unique_ptr<BackendFixture> m_fixture;
    NQIdentityServer &server() { return NQIdentityServer::sharedManager(); }

    // registerVpnApi, waited for.
    ApiOutcome registerApi()
    {
        auto outcome = std::make_shared<ApiOutcome>();
        server().registerVpnApi([outcome](const QString &u, const QString &p, const QString &e) {
            ++outcome->calls;
            outcome->username = u;
            outcome->password = p;
            outcome->errorText = e;
        });
        if (!QTest::qWaitFor([&] { return outcome->calls > 0; }, 15000))
            qWarning("registerVpnApi did not complete");
        QTest::qWait(20);
        return *outcome;
    }
    void storePair(const QString &u, const QString &p) { m_fixture->storage().storeVPNCredentials(u, p); }
    AppStorageManager::VpnCredentials stored() { return m_fixture->storage().getVpnCredentials(); }

private slots:
    void initTestCase() { QVERIFY2(m_backend.start(), "pelorin-devbackend did not start"); }
    void init()
    {
        m_fixture = std::make_unique<BackendFixture>(m_backend.baseUrl());
        m_backend.call("DELETE", "/control/fault");
        m_backend.clearRequests();
    }
    void cleanup() { m_fixture.reset(); }

    void labelSettingsPathAndLinks()
    {
        LogCapture log;
        QStringList links;
        NQErrorOpt error{NQError()};
        int calls = 0;
        server().labelsettingsForLabelID(
            "20014", "D", "secret-key", 1, "en", "1.0",
            [&](const QString &s, const QString &in, const QString &un, const NQErrorOpt &e) {
                ++calls;
                links = {s, in, un};
                error = e;
            });
        QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 10000);
        QVERIFY(!error);
        const QString base = m_backend.baseUrl();
        QCOMPARE(links, (QStringList{base + "/support", base + "/welcome", base + "/goodbye"}));
        const QJsonArray requests = m_backend.requests();
        QCOMPARE(requests.size(), 1);
        QCOMPARE(requests[0]["method"].toString(), "GET");
        QCOMPARE(requests[0]["path"].toString(), "/api1/Configuration/labelsettings/20014/en/D/1.0");
        QVERIFY(!requests[0]["path"].toString().contains("secret-key"));
        const QString url = base + "/api1/Configuration/labelsettings/20014/en/D/1.0";
        QCOMPARE(log.lines().mid(0, 4),
                 (QStringList{"Request labelsettings", "Request labelsettings. endpointUrl = '" + url + "'",
                              "Request labelsettings. request success",
                              "Request labelsettings. request success. response body deserialized"}));
        QVERIFY(log.lines().value(4).startsWith("Request labelsettings. request finish. response body = {"));
    }

    void labelSettingsNullsAreAbsentAndNonJsonFails()
    {
        QVERIFY(m_backend.fault("/api1/Configuration/labelsettings", "nulls", "support,linkafteruninstall", 1));
        QStringList links;
        NQErrorOpt error;
        int calls = 0;
        const auto ask = [&] {
            server().labelsettingsForLabelID(
                "20014", "D", {}, 1, "en", "1.0",
                [&](const QString &s, const QString &in, const QString &un, const NQErrorOpt &e) {
                    ++calls;
                    links = {s, in, un};
                    error = e;
                });
        };
        ask();
        QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 10000);
        QVERIFY(!error);
        QVERIFY(links[0].isNull());
        QCOMPARE(links[1], m_backend.baseUrl() + "/welcome");
        QVERIFY(links[2].isNull());

        QVERIFY(m_backend.fault("/api1/Configuration/labelsettings", "non-json"));
        ask();
        QTRY_COMPARE_WITH_TIMEOUT(calls, 2, 10000);
        QVERIFY(error);
        QCOMPARE(error->domain(), kIdentityDomain);
        QCOMPARE(error->code(), -1);
        QCOMPARE(error->localizedDescription(), "Deserialize response body failed for request 'labelsettings'.");
        QVERIFY(links[0].isNull() && links[1].isNull() && links[2].isNull());
    }

    void extensionLinkSuccessUnknownBrowserAndMissingUrl()
    {
        struct Got {
            bool success = false;
            QString url;
            NQErrorOpt error;
        } got;
        int calls = 0;
        const auto ask = [&](const QString &browser) {
            server().fetchBrowserExtensionConfigForLabelID("20014", browser,
                                                           [&](bool s, const QString &u, const NQErrorOpt &e) {
                                                               ++calls;
                                                               got = {s, u, e};
                                                           });
        };
        LogCapture log;
        ask("chrome");
        QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 10000);
        QVERIFY(got.success && !got.error);
        QVERIFY(got.url.endsWith("kembcdlbgbcnnchcnbdhbmbhbejnedjf"));
        QCOMPARE(m_backend.requests().last()["path"].toString(), "/api1/Configuration/extensiondownload/20014/chrome");
        QCOMPARE(log.lines().first(), "Request BrowseConfiguration");

        ask("opera"); // the backend knows no link: success false and no url
        QTRY_COMPARE_WITH_TIMEOUT(calls, 2, 10000);
        QVERIFY(!got.success);
        QVERIFY(got.url.isNull());
        QCOMPARE(got.error->localizedDescription(),
                 "Deserialize key 'url' from response body failed for request 'BrowseConfiguration'.");

        QVERIFY(m_backend.fault("/api1/Configuration/extensiondownload", "nulls", "url"));
        ask("chrome");
        QTRY_COMPARE_WITH_TIMEOUT(calls, 3, 10000);
        QVERIFY(got.success);
        QCOMPARE(got.error->code(), -1);
    }

    void installEventBodyHasEightKeysWithoutCountry()
    {
        LogCapture log;
        bool sent = false;
        int calls = 0;
        server().reportAnalyticsEventForLabelID("20014", "DEV", "MACHINE", "de", QString(), "2.1.0", 7, true,
                                                [&](bool s, const NQErrorOpt &e) {
                                                    ++calls;
                                                    sent = s && !e;
                                                });
        QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 10000);
        QVERIFY(sent);
        const QJsonObject request = m_backend.requests().last().toObject();
        QCOMPARE(request["method"].toString(), "POST");
        QCOMPARE(request["path"].toString(), "/Configuration/installstats");
        QCOMPARE(request["headers"].toObject()["content-type"].toString(), "application/json");
        const QJsonObject body = QJsonDocument::fromJson(request["body"].toString().toUtf8()).object();
        QCOMPARE(body.keys(),
                 (QStringList{"appVer", "isInstall", "isoLang", "labelId", "lang", "mac", "machineId", "mark"}));
        QCOMPARE(body["isInstall"], QJsonValue(true));
        QCOMPARE(body["mark"], QJsonValue(0));
        QCOMPARE(body["lang"].toString(), "de");
        QCOMPARE(body["isoLang"].toString(), "de");
        QCOMPARE(body["mac"].toString(), "DEV");
        QCOMPARE(body["machineId"].toString(), "MACHINE");
        QCOMPARE(log.lines().first(), "Request report install-event");
        QVERIFY(log.lines()[1].startsWith("Request report install-event. endpointUrl = '" + m_backend.baseUrl() +
                                          "/Configuration/installstats'. parameters = '{\n    appVer = \"2.1.0\";\n"));
        QCOMPARE(log.lines()[2], "Request install-event. request success");

        server().reportAnalyticsEventForLabelID("20014", "DEV", "MACHINE", "de", "AT", "2.1.0", 7, false,
                                                [&](bool s, const NQErrorOpt &) {
                                                    ++calls;
                                                    sent = s;
                                                });
        QTRY_COMPARE_WITH_TIMEOUT(calls, 2, 10000);
        const QJsonObject second =
            QJsonDocument::fromJson(m_backend.requests().last()["body"].toString().toUtf8()).object();
        QCOMPARE(second.size(), 9);
        QCOMPARE(second["country"].toString(), "AT");
        QCOMPARE(second["isInstall"], QJsonValue(false));
    }

    void registerVpnApiStoresTheDevicesAccount()
    {
        m_fixture->storage().storeAccountKey("abc-key");
        LogCapture log;
        const ApiOutcome first = registerApi();
        QCOMPARE(first.calls, 1);
        QVERIFY(first.errorText.isNull());
        QVERIFY(first.username.startsWith("pv"));
        QCOMPARE(first.password.size(), 24);
        QCOMPARE(stored().username, first.username);
        QCOMPARE(stored().password, first.password);
        const QJsonObject request = m_backend.requests().last().toObject();
        QCOMPARE(request["path"].toString(), "/api1/vpnapi/create/20014/ABC-KEY/" + AppConfig::deviceUniqueID());
        QCOMPARE(request["query"].toString(), "deviceType=2&keyFromStore=false&engine=1");
        QVERIFY(log.lines().contains("|IdentityService| registerVpnApi Success"));
        QVERIFY(log.lines().contains(
            QStringLiteral(
                "|IdentityService| registerVpnApi response credentials: Username length: %1 Password length: 24")
                .arg(first.username.size())));
        for (const QString &line : log.lines())
            if (line.startsWith("|IdentityService|"))
                QVERIFY2(!line.contains(first.password), qPrintable(line));

        const ApiOutcome again = registerApi(); // the same device gets the same account
        QCOMPARE(again.username, first.username);
        QCOMPARE(again.password, first.password);
    }

    void emptyObjectLogsEachMissingKeyAndClearsCredentials()
    {
        storePair("old-user", "old-pass");
        QVERIFY(m_backend.fault("/api1/vpnapi/create", "missing-keys"));
        LogCapture log;
        const ApiOutcome o = registerApi();
        QVERIFY(o.errorText.isNull());
        QVERIFY(o.username.isNull() && o.password.isNull());
        QStringList missing;
        for (const QString &line : log.lines())
            if (line.startsWith("Request registerVpn. failed = '"))
                missing << line;
        QCOMPARE(missing.size(), 4);
        const QStringList keys{"success", "message", "username", "password"};
        for (int i = 0; i < 4; ++i) {
            QVERIFY2(missing[i].contains("Missing key ('" + keys[i] + "')"), qPrintable(missing[i]));
            QVERIFY(missing[i].contains("Code=-32"));
        }
        QVERIFY(log.lines().contains("|IdentityService| registerVpnApi response credentials FAILED"));
        QVERIFY(stored().username.isNull());
        QVERIFY(stored().password.isNull());
    }

    void nullPasswordCountsAsMissing()
    {
        storePair("old-user", "old-pass");
        QVERIFY(m_backend.fault("/api1/vpnapi/create", "nulls", "password"));
        LogCapture log;
        const ApiOutcome o = registerApi();
        QVERIFY(o.errorText.isNull());
        QVERIFY(!o.username.isEmpty());
        QVERIFY(o.password.isNull());
        QCOMPARE(log.lines().filter("Missing key ('").size(), 1);
        QCOMPARE(stored().username, o.username);
        QVERIFY(stored().password.isNull());
    }

    // The account reader alone; reals past the integer range must not be converted blindly
    // (undefined behaviour, caught by the sanitizer builds).
    void accountSuccessValues_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("success");
        QTest::newRow("huge real") << QByteArray(R"({"success":1e65})") << true;
        QTest::newRow("huge negative real") << QByteArray(R"({"success":-1e300})") << true;
        QTest::newRow("fraction") << QByteArray(R"({"success":0.5})") << false;
        QTest::newRow("leading digits") << QByteArray(R"({"success":" 17x"})") << true;
        QTest::newRow("word") << QByteArray(R"({"success":"yes"})") << false;
    }
    void accountSuccessValues()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, success);
        LogCapture log;
        const auto answer = BackendAnswers::registerVpn(BackendRequest::resultForBody(body, "x"), "%1");
        QVERIFY(!answer.error);
        QCOMPARE(answer.response.success, success);
    }

    void installEventAcknowledgement_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("sent");
        QTest::newRow("true") << QByteArray(R"({"sent":true})") << true;
        QTest::newRow("one") << QByteArray(R"({"sent":1})") << true;
        QTest::newRow("zero") << QByteArray(R"({"sent":0})") << false;
        QTest::newRow("false") << QByteArray(R"({"sent":false})") << false;
        QTest::newRow("text") << QByteArray(R"({"sent":"1"})") << false;
        QTest::newRow("absent") << QByteArray("{}") << false;
        QTest::newRow("not json") << QByteArray("sent") << false;
    }
    void installEventAcknowledgement()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, sent);
        QCOMPARE(BackendAnswers::installEventSent(BackendRequest::resultForBody(body, "x")), sent);
    }

    // Every failure row: the error reaches the caller and the stored pair stays.
    void failuresKeepStoredCredentials_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("domain");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("array") << "wrong-shape" << QJsonValue() << kIdentityDomain << -21 << "Response unknown";
        QTest::newRow("non-json") << "non-json" << QJsonValue() << kIdentityDomain << -1
                                  << "Deserialize response body failed for request 'registerVpn'.";
        QTest::newRow("error page") << "status" << QJsonValue(503) << kIdentityDomain << -1
                                    << "Deserialize response body failed for request 'registerVpn'.";
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
        storePair("kept-user", "kept-pass");
        QVERIFY(m_backend.fault("/api1/vpnapi/create", kind, value));
        LogCapture log;
        NQErrorOpt error;
        int calls = 0;
        server().registerVpnForLabelID("20014", "DEV", "", 2, false,
                                       [&](const NQIdentityServer::RegisterVpnResponse &, const NQErrorOpt &e) {
                                           ++calls;
                                           error = e;
                                       });
        QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 10000);
        QVERIFY(error);
        QCOMPARE(error->domain(), domain);
        QCOMPARE(error->code(), code);
        QCOMPARE(error->localizedDescription(), text);
        if (code == -21)
            QVERIFY(
                log.lines().contains("Request: registerVpn FAILED with error: '" + error->debugDescription() + "'."));

        const ApiOutcome o = registerApi();
        QCOMPARE(o.errorText, text);
        QVERIFY(o.username.isNull() && o.password.isNull());
        QCOMPARE(stored().username, "kept-user");
        QCOMPARE(stored().password, "kept-pass");
        QVERIFY(log.lines().filter("|IdentityService| registerVpnApi Error: ").size() == 1);
    }

    void tesselDates_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QDateTime>("expected");
        QTest::newRow("zulu") << "2024-03-01T10:20:30Z"
                              << QDateTime(QDate(2024, 3, 1), QTime(10, 20, 30), QTimeZone::utc());
        QTest::newRow("offset") << "2024-03-01T10:20:30+02:00"
                                << QDateTime(QDate(2024, 3, 1), QTime(8, 20, 30), QTimeZone::utc());
        QTest::newRow("local") << "2024-03-01T23:20:30" << QDateTime(QDate(2024, 3, 1), QTime(23, 20, 30));
        QTest::newRow("garbage") << "01.03.2024" << QDateTime();
        QTest::newRow("bad month") << "2024-13-01T10:20:30Z" << QDateTime();
        QTest::newRow("offset past 14 hours") << "2024-03-01T10:20:30+42:00" << QDateTime();
        QTest::newRow("offset minutes past 59") << "2024-03-01T10:20:30-0175" << QDateTime();
        QTest::newRow("widest offset") << "2024-03-01T10:20:30-14:00"
                                       << QDateTime(QDate(2024, 3, 2), QTime(0, 20, 30), QTimeZone::utc());
    }
    void tesselDates()
    {
        QFETCH(QString, text);
        QFETCH(QDateTime, expected);
        const auto parsed = NQIdentityServer::dateFromTesselString(text);
        QCOMPARE(parsed.has_value(), expected.isValid());
        if (parsed)
            QCOMPARE(parsed->toMSecsSinceEpoch(), expected.toMSecsSinceEpoch());
    }
};

QTEST_MAIN(TestIdentityServer)
#include "tst_identity_server.moc"
