// The server catalogue: records from JSON and from the archive, flags, and the two backend
// requests against a real HTTP server on loopback.
#include "foundation/AppConfig.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/EventNames.h"
#include "foundation/KeyedArchive.h"
#include "foundation/MainQueue.h"
#include "support/CannedHttpServer.h"
#include "support/LogCapture.h"
#include "support/VpnTestEnvironment.h"
#include "vpn/FlagUtils.h"

#include <QtTest>

class TestVpnCatalogue : public QObject {
    Q_OBJECT
private slots:
    void recordFromJson();
    void integersKeptOnlyWhenNonZero_data();
    void integersKeptOnlyWhenNonZero();
    void archiveRoundTripKeepsTheNarrowRead();
    void flags();
    void serverListSuccessAndEvents();
    void serverListFailuresEmptyTheList();
    void profileRequest();
};

void TestVpnCatalogue::recordFromJson()
{
    const auto json = QJsonDocument::fromJson(R"({"id": 7, "countryNumeric": 276, "countryIso": "DE",
        "countryName": "Germany", "dateCreated": 1700000000000, "dateModified": 0, "serverAddress": "de.example",
        "continent": "Europe", "enabled": true, "isDefault": "YES", "ovpn": "ignored", "clusterSelected": true})");
    const NQVPNCountry c = NQVPNCountry::initWithDictionary(json.object().toVariantMap());
    QCOMPARE(c.countryId, 7);
    QCOMPARE(c.countryNumeric, 276);
    QCOMPARE(c.dateCreated, Q_INT64_C(1700000000000));
    QCOMPARE(c.dateModified, 0);
    QCOMPARE(c.countryIso, QStringLiteral("DE"));
    QCOMPARE(c.countryName, QStringLiteral("Germany"));
    QCOMPARE(c.serverAddress, QStringLiteral("de.example"));
    QCOMPARE(c.continent, QStringLiteral("Europe"));
    QVERIFY(c.enabled);
    QVERIFY(c.isDefault);
    // Keys of the local state and the profile are never read from the list.
    QVERIFY(c.ovpn.isNull());
    QVERIFY(!c.clusterSelected);
    QVERIFY(!c.clusterFavourited);

    const auto sparse = QJsonDocument::fromJson(R"({"countryName": null, "enabled": false, "isDefault": 0})");
    const NQVPNCountry s = NQVPNCountry::initWithDictionary(sparse.object().toVariantMap());
    QVERIFY(s.countryName.isNull());
    QVERIFY(s.countryIso.isNull());
    QVERIFY(!s.enabled);
    QVERIFY(!s.isDefault);
}

void TestVpnCatalogue::integersKeptOnlyWhenNonZero_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<qint64>("id");
    QTest::newRow("number") << QByteArray(R"({"id": 17})") << qint64(17);
    QTest::newRow("string") << QByteArray(R"({"id": "17"})") << qint64(17);
    QTest::newRow("string with tail") << QByteArray(R"({"id": " 42abc"})") << qint64(42);
    QTest::newRow("zero") << QByteArray(R"({"id": 0})") << qint64(0);
    QTest::newRow("missing") << QByteArray(R"({})") << qint64(0);
    QTest::newRow("null") << QByteArray(R"({"id": null})") << qint64(0);
    QTest::newRow("text") << QByteArray(R"({"id": "abc"})") << qint64(0);
    QTest::newRow("object") << QByteArray(R"({"id": {"a": 1}})") << qint64(0);
    QTest::newRow("fraction truncated") << QByteArray(R"({"id": 9.9})") << qint64(9);
    QTest::newRow("negative") << QByteArray(R"({"id": -3})") << qint64(-3);
    QTest::newRow("beyond 32 bits") << QByteArray(R"({"id": 4294967301})") << qint64(4294967301);
}

void TestVpnCatalogue::integersKeptOnlyWhenNonZero()
{
    QFETCH(QByteArray, json);
    QFETCH(qint64, id);
    QCOMPARE(NQVPNCountry::initWithDictionary(QJsonDocument::fromJson(json).object().toVariantMap()).countryId, id);
}

void TestVpnCatalogue::archiveRoundTripKeepsTheNarrowRead()
{
    NQVPNCountry c;
    c.countryName = QStringLiteral("United States");
    c.countryIso = QStringLiteral("US");
    c.continent = QStringLiteral("North America");
    c.serverAddress = QStringLiteral("us.example");
    c.countryId = 12;
    c.countryNumeric = 840;
    c.clusterFavourited = true;
    c.enabled = true;
    c.dateCreated = 5;
    c.ovpn = QStringLiteral("client");
    NQErrorOpt error;
    const QByteArray data = KeyedArchive::archivedArray(QList<NQVPNCountry>{c}, &error);
    QVERIFY(!error);
    const auto back = KeyedArchive::unarchivedArray<NQVPNCountry>(data, &error);
    QVERIFY(back && back->size() == 1);
    const NQVPNCountry &r = back->first();
    QCOMPARE(r.countryName, c.countryName);
    QCOMPARE(r.countryIso, c.countryIso);
    QCOMPARE(r.continent, c.continent);
    QCOMPARE(r.serverAddress, c.serverAddress);
    QCOMPARE(r.countryId, 12);
    QCOMPARE(r.countryNumeric, 840);
    QVERIFY(r.clusterFavourited && r.enabled && !r.clusterSelected && !r.isDefault);
    // Not part of the archive.
    QCOMPARE(r.dateCreated, 0);
    QVERIFY(r.ovpn.isNull());

    // Written as 64-bit, read back through the 32-bit decoder.
    c.countryId = Q_INT64_C(2147483648);
    c.countryNumeric = Q_INT64_C(4294967301);
    const auto wide = KeyedArchive::unarchivedObject<NQVPNCountry>(KeyedArchive::archivedData(c));
    QVERIFY(wide);
    QCOMPARE(wide->countryId, Q_INT64_C(-2147483648));
    QCOMPARE(wide->countryNumeric, 5);
}

void TestVpnCatalogue::flags()
{
    const FlagUtils flags(QString::fromLocal8Bit(qgetenv("PELORIN_SOURCE_DIR")) + QStringLiteral("/resources/flags"));
    const QString unknown = flags.getFlagForCountryCode(QStringLiteral("Unknown"));
    QVERIFY(unknown.endsWith(QStringLiteral("/flag_unknown.svg")));
    QCOMPARE(flags.getFlagForCountryCode(QString()), unknown);
    QVERIFY(flags.getFlagForCountryCode(QStringLiteral("DE")).endsWith(QStringLiteral("/de.svg")));
    QVERIFY(flags.getFlagForCountryCode(QStringLiteral("us")).endsWith(QStringLiteral("/us.svg")));
    // No image: nil, without falling back to the unknown flag.
    QVERIFY(flags.getFlagForCountryCode(QStringLiteral("XX")).isNull());
    QVERIFY(flags.getFlagForCountryCode(QStringLiteral("")).isNull());
    QVERIFY(flags.getFlagForCountryCode(QStringLiteral("../flags/de")).isNull());
    // Every country the backend may name has an image: the full ISO 3166-1 set is there.
    const QStringList images = QDir(flags.flagsDirectory()).entryList({QStringLiteral("??.svg")});
    QVERIFY2(images.size() >= 249, qPrintable(QString::number(images.size())));
    for (const QString &image : images) {
        QFile file(flags.flagsDirectory() + QLatin1Char('/') + image);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY2(file.read(200).contains("<svg"), qPrintable(image));
    }
}

namespace {
constexpr int kWaitMs = 10000;

struct Recorded {
    QStringList events;
    QList<NQVPNCountry> posted;
};

void record(Recorded &r)
{
    auto &bus = EventBus::defaultCenter();
    bus.addObserver(&r, QLatin1String(Events::NOTIFICATION_APP_READY), [&r](const Event &e) {
        r.events << e.name;
        QVERIFY(e.userInfo.isEmpty());
    });
    bus.addObserver(&r, QLatin1String(Events::NOTIFICATION_CLUSTERS_LOADED), [&r](const Event &e) {
        r.events << e.name;
        r.posted = e.userInfo.value(QLatin1String(Events::NQVpnKeyClustersArray)).value<QList<NQVPNCountry>>();
    });
}
} // namespace

void TestVpnCatalogue::serverListSuccessAndEvents()
{
    CannedHttpServer server;
    VpnTestEnvironment env(server.baseUrl());
    env.storage().storeKeyFromStoreFlag(true);
    Recorded r;
    record(r);
    // The status is never looked at: a 500 with an array body is a list.
    const QByteArray list = R"([{"id": 1, "countryName": "Germany"}, {"id": "2", "countryName": "United States"}])";
    server.setReplies({{500, list}});
    LogCapture logs;
    bool done = false;
    env.manager().getCountries([&](const QList<NQVPNCountry> &countries, const NQErrorOpt &error) {
        QVERIFY(MainQueue::isMainThread());
        QVERIFY(!error);
        QCOMPARE(countries.size(), 2);
        // The list and both events are in place before the completion runs.
        QCOMPARE(r.events, (QStringList{Events::NOTIFICATION_APP_READY, Events::NOTIFICATION_CLUSTERS_LOADED}));
        QCOMPARE(env.manager().availableCountries().size(), 2);
        done = true;
    });
    QTRY_VERIFY(done);
    QCOMPARE(r.posted.value(1).countryName, QStringLiteral("United States"));
    QCOMPARE(r.posted.value(1).countryId, 2);
    QCOMPARE(server.targets().value(0),
             QStringLiteral("/api1/vpnapi/serverlist/20014/KEY/%1/%2?deviceType=2&keyFromStore=true&engine=1")
                 .arg(AppConfig::deviceUniqueID(), AppConfig::appVersion()));
    const QString request = QStringLiteral("|NQVPNManager| Request getCountries");
    QCOMPARE(logs.lines().filter(request),
             (QStringList{request, request + ". endpointUrl = '" + server.baseUrl() + server.targets().value(0) + "'",
                          request + ". request success", request + ". request success. response body deserialized",
                          request + ". request finish. response body = " + list}));

    // An empty array: empty list, no error, both events all the same.
    server.setReplies({{200, "[]"}});
    r.events.clear();
    done = false;
    env.manager().getCountries([&](const QList<NQVPNCountry> &countries, const NQErrorOpt &error) {
        QVERIFY(countries.isEmpty() && !error);
        done = true;
    });
    QTRY_VERIFY(done);
    QCOMPARE(r.events.size(), 2);
    EventBus::defaultCenter().removeObserver(&r);
}

void TestVpnCatalogue::serverListFailuresEmptyTheList()
{
    CannedHttpServer server;
    VpnTestEnvironment env(server.baseUrl());
    server.setReplies({{200, R"([{"id": 1}])"}, {200, "{}"}, {200, "not json"}});
    LogCapture logs;
    Recorded r;
    record(r);
    bool done = false;
    const auto run = [&env, &done]() {
        NQErrorOpt result;
        done = false;
        env.manager().getCountries([&](const QList<NQVPNCountry> &countries, const NQErrorOpt &error) {
            QVERIFY(countries.isEmpty() || !error);
            result = error;
            done = true;
        });
        (void)QTest::qWaitFor([&] { return done; }, kWaitMs);
        return result;
    };
    QVERIFY(!run());
    QVERIFY(done);
    QCOMPARE(env.manager().availableCountries().size(), 1);
    for (const char *body : {"object", "not JSON"}) {
        r.events.clear();
        const NQErrorOpt error = run();
        QVERIFY(done);
        QVERIFY2(error, body);
        QCOMPARE(error->domain(), QStringLiteral("com.pelorin.vpn.ios.vpn.error"));
        QCOMPARE(error->code(), -1);
        QCOMPARE(error->localizedDescription(),
                 QStringLiteral("Deserialize response body failed for request 'getCountries'."));
        QCOMPARE(env.manager().availableCountries().size(), 0);
        QCOMPARE(r.events.size(), 2);
    }
    EventBus::defaultCenter().removeObserver(&r);

    // Nobody listening: the transport error itself, and the list emptied.
    VpnTestEnvironment closed(QStringLiteral("http://127.0.0.1:1"));
    done = false;
    closed.manager().getCountries([&](const QList<NQVPNCountry> &countries, const NQErrorOpt &error) {
        QVERIFY(countries.isEmpty());
        QVERIFY(error);
        QCOMPARE(error->domain(), QStringLiteral("NSURLErrorDomain"));
        done = true;
    });
    QTRY_VERIFY(done);
    QCOMPARE(logs.lines().filter("|NQVPNManager| Request getCountries. failed = 'Error Domain=NSURLErrorDomain").size(),
             1);
}

void TestVpnCatalogue::profileRequest()
{
    CannedHttpServer server;
    VpnTestEnvironment env(server.baseUrl());
    LogCapture logs;
    struct Answer {
        QString ovpn, address;
        NQErrorOpt error;
        bool done = false;
    };
    const auto ask = [&env](QList<CannedHttpServer::Reply> replies, CannedHttpServer &s) {
        s.setReplies(std::move(replies));
        Answer answer;
        env.manager().getCountryVPNConfig(42,
                                          [&](const QString &ovpn, const QString &address, const NQErrorOpt &error) {
                                              QVERIFY(MainQueue::isMainThread());
                                              answer = {ovpn, address, error, true};
                                          });
        (void)QTest::qWaitFor([&] { return answer.done; }, kWaitMs);
        return answer;
    };
    Answer a = ask({{200, R"({"ovpn": "client\n", "serverAddress": "10.0.0.1", "serverPort": 1194})"}}, server);
    QVERIFY(a.done);
    QCOMPARE(a.ovpn, QStringLiteral("client\n"));
    QCOMPARE(a.address, QStringLiteral("10.0.0.1"));
    QVERIFY(!a.error);
    const QString url =
        server.baseUrl() +
        QStringLiteral("/api1/vpnapi/serverovpn/20014/KEY/%1/%2/42?deviceType=2&keyFromStore=false&engine=1")
            .arg(AppConfig::deviceUniqueID(), AppConfig::appVersion());
    QCOMPARE(server.baseUrl() + server.targets().value(0), url);
    QVERIFY(logs.lines().contains(QStringLiteral("|NQVPNManager| Request getCountryVPNConfig")));
    QVERIFY(logs.lines().contains(
        QStringLiteral("|NQVPNManager| Request getCountryVPNConfig. endpointUrl = '%1'").arg(url)));

    // Values present are passed on beside the error of the last missing key.
    a = ask({{200, R"({"ovpn": "p", "serverAddress": "a"})"}}, server);
    QVERIFY(a.done);
    QCOMPARE(a.ovpn, QStringLiteral("p"));
    QCOMPARE(a.address, QStringLiteral("a"));
    QVERIFY(a.error);
    QCOMPARE(*a.error, ErrorIdentity::errorForMissingKey(QStringLiteral("serverPort")));
    a = ask({{200, R"({"serverAddress": "a"})"}}, server);
    QCOMPARE(*a.error, ErrorIdentity::errorForMissingKey(QStringLiteral("serverPort")));
    a = ask({{200, R"({"serverAddress": "a", "serverPort": null})"}}, server);
    QCOMPARE(*a.error, ErrorIdentity::errorForMissingKey(QStringLiteral("serverPort")));
    a = ask({{200, R"({"serverPort": 1})"}}, server);
    QCOMPARE(*a.error, ErrorIdentity::errorForMissingKey(QStringLiteral("serverAddress")));
    QVERIFY(a.ovpn.isNull());

    a = ask({{200, "[1]"}}, server);
    QVERIFY(a.ovpn.isNull() && a.address.isNull());
    QCOMPARE(a.error->domain(), QStringLiteral("com.pelorin.vpn.ios.vpn.error"));
    QCOMPARE(a.error->localizedDescription(),
             QStringLiteral("Deserialize response body failed for request 'getCountryVPNConfig'."));

    VpnTestEnvironment closed(QStringLiteral("http://127.0.0.1:1"));
    bool done = false;
    closed.manager().getCountryVPNConfig(1, [&](const QString &ovpn, const QString &, const NQErrorOpt &error) {
        QVERIFY(ovpn.isNull());
        QCOMPARE(error->domain(), QStringLiteral("NSURLErrorDomain"));
        done = true;
    });
    QTRY_VERIFY(done);
    QVERIFY(logs.lines().filter(QStringLiteral("|NQVPNManager| Request getCountryVPNConfig. failed = '")).size() == 1);
}

QTEST_GUILESS_MAIN(TestVpnCatalogue)
#include "tst_vpn_catalogue.moc"
