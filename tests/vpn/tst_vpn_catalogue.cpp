// The server catalogue: records from JSON and from the archive, flags, and the backend
// requests against the development backend on loopback, none of which waits for the keychain
// on the caller's (the window's) thread.
#include "backend/DevBackendProcess.h"
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/EventNames.h"
#include "foundation/KeyedArchive.h"
#include "foundation/SecretQueue.h"
#include "support/LogCapture.h"
#include "support/VpnTestEnvironment.h"
#include "vpn/FlagUtils.h"

#include <QDeadlineTimer>
#include <QThread>
#include <QtTest>

#include <atomic>

class TestVpnCatalogue : public QObject {
    Q_OBJECT
    DevBackendProcess m_backend;
    // Path and query of the backend's request `i` since its last reset.
    QString target(int i)
    {
        const QJsonObject request = m_backend.requests().at(i).toObject();
        return request["path"].toString() + '?' + request["query"].toString();
    }

private slots:
    void initTestCase() { QVERIFY(m_backend.start()); }
    void recordFromJson();
    void recordKeepsOnlyTheListsKeys();
    void flags();
    void profileThenServerList();
    void requestsReadTheIdentifierOffTheCallersThread();
};

namespace {
NQVPNCountry fromJson(const QByteArray &json)
{
    return NQVPNCountry::initWithDictionary(QJsonDocument::fromJson(json).object().toVariantMap());
}

// No item ever; counts the look-ups during which the main thread could not run an event (it
// was waiting for this answer, as it would wait for a locked keyring's unlock prompt).
class WatchedSecrets : public SecretBackend {
public:
    std::atomic<int> finds = 0;
    std::atomic<int> findsBlockingTheMainThread = 0;
    Result find(const QString &, const QString &) override
    {
        ++finds;
        auto ran = std::make_shared<std::atomic<bool>>(false);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [ran] { *ran = true; }, Qt::QueuedConnection);
        const QDeadlineTimer limit(5000);
        while (!*ran && !limit.hasExpired())
            QThread::msleep(5);
        if (!*ran)
            ++findsBlockingTheMainThread;
        return {ItemNotFound, {}, {}};
    }
    Result update(const QString &, const QString &, const QByteArray &) override { return {ItemNotFound, {}, {}}; }
    Result add(const QString &, const QString &, const QByteArray &) override { return {}; }
    Result remove(const QString &, const QString &) override { return {}; }
    QString name() const override { return QStringLiteral("watched"); }
};
} // namespace

void TestVpnCatalogue::recordFromJson()
{
    // Integers are kept only when non-zero; truth is a non-zero number or a text starting
    // with Y, y, T, t or a non-zero digit.
    const QList<std::tuple<const char *, qint64, bool>> rows{{"\"17\"", 17, true},
                                                             {"0", 0, false},
                                                             {"9.9", 9, true},
                                                             {"\"-007\"", -7, true},
                                                             {"\"000\"", 0, false},
                                                             {"\"no\"", 0, false},
                                                             {"1e300", std::numeric_limits<qint64>::max(), true}};
    for (const auto &[value, id, enabled] : rows) {
        const NQVPNCountry c = fromJson(QByteArray("{\"id\": ") + value + ", \"enabled\": " + value + "}");
        QCOMPARE((QVariantList{value, c.countryId, c.enabled}), (QVariantList{value, id, enabled}));
    }
}

void TestVpnCatalogue::recordKeepsOnlyTheListsKeys()
{
    NQVPNCountry c = fromJson(R"({"id": 7, "countryNumeric": 276, "countryIso": "DE", "continent": "Europe",
        "countryName": "Germany", "dateCreated": 1700000000000, "dateModified": 2, "serverAddress": 10,
        "isDefault": "y", "ovpn": "ignored", "clusterSelected": true})");
    QCOMPARE((QVariantList{c.countryId, c.countryNumeric, c.dateCreated, c.dateModified, c.countryIso, c.countryName,
                           c.serverAddress, c.continent, c.isDefault, c.enabled}),
             (QVariantList{7, 276, Q_INT64_C(1700000000000), 2, "DE", "Germany", "10", "Europe", true, false}));

    // Through the archive, with the marks the list does not carry.
    c.clusterFavourited = c.clusterSelected = true;
    NQErrorOpt error;
    const auto back = KeyedArchive::unarchivedArray<NQVPNCountry>(
        KeyedArchive::archivedArray(QList<NQVPNCountry>{c}, &error), &error);
    QVERIFY(!error && back && back->size() == 1);
    const NQVPNCountry &r = back->first();
    QCOMPARE((QVariantList{r.countryId, r.countryNumeric, r.countryIso, r.countryName, r.serverAddress, r.continent,
                           r.isDefault, r.enabled, r.clusterFavourited, r.clusterSelected}),
             (QVariantList{7, 276, "DE", "Germany", "10", "Europe", true, false, true, true}));

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
    // No image: nil, without falling back to the unknown flag.
    for (const char *code : {"XX", "", "../flags/de", ".hidden"})
        QVERIFY2(flags.getFlagForCountryCode(QString::fromLatin1(code)).isNull(), code);
    // Every country the backend may name has an image: the full ISO 3166-1 set is there.
    const QStringList images = QDir(flags.flagsDirectory()).entryList({QStringLiteral("??.svg")});
    QVERIFY2(images.size() >= 249, qPrintable(QString::number(images.size())));
    for (const QString &image : images) {
        QVERIFY2(contentOf(flags.flagsDirectory() + QLatin1Char('/') + image).left(200).contains("<svg"),
                 qPrintable(image));
        QCOMPARE(flags.getFlagForCountryCode(image.left(2).toUpper()), flags.flagsDirectory() + '/' + image);
    }
}

void TestVpnCatalogue::profileThenServerList()
{
    VpnTestEnvironment env(m_backend.baseUrl());
    m_backend.reset();
    const struct {
        QByteArray body;
        QString ovpn;
        QString address;
        QString missing; // the key the error names; empty: no error
    } cases[] = {
        {R"({"ovpn": "client\n", "serverAddress": "10.0.0.1", "serverPort": 1194})", "client\n", "10.0.0.1", {}},
        // Values present are passed on beside the error of the last missing key.
        {R"({"ovpn": "p", "serverAddress": 7})", "p", "7", "serverPort"},
        {R"({"serverAddress": "a", "serverPort": null})", {}, "a", "serverPort"},
        {R"({"serverPort": 1})", {}, {}, "serverAddress"},
    };
    for (const auto &c : cases) {
        QVERIFY(m_backend.fault(QStringLiteral("/api1/vpnapi/serverovpn"), QStringLiteral("body"), QString(c.body), 1));
        QStringList got;
        NQErrorOpt error;
        env.manager().getCountryVPNConfig(42, [&](const QString &o, const QString &a, const NQErrorOpt &e) {
            QVERIFY(MainQueue::isMainThread());
            got = QStringList{o, a};
            error = e;
        });
        QTRY_VERIFY_WITH_TIMEOUT(!got.isEmpty(), kVpnWaitMs);
        QCOMPARE(got, (QStringList{c.ovpn, c.address}));
        if (c.missing.isEmpty())
            QVERIFY(!error);
        else
            QCOMPARE(*error, ErrorIdentity::errorForMissingKey(c.missing));
    }
    const QString url =
        m_backend.baseUrl() +
        QStringLiteral("/api1/vpnapi/serverovpn/20014/KEY/%1/%2/42?deviceType=2&keyFromStore=false&engine=1")
            .arg(AppConfig::deviceUniqueID(), AppConfig::appVersion());
    QCOMPARE(m_backend.baseUrl() + target(3), url);

    env.storage().storeKeyFromStoreFlag(true);
    QStringList events;
    auto &bus = EventBus::defaultCenter();
    for (const char *name : {Events::NOTIFICATION_APP_READY, Events::NOTIFICATION_CLUSTERS_LOADED})
        bus.addObserver(this, QLatin1String(name), [&](const Event &e) { events << e.name; });
    LogCapture logs;
    // A failure empties the list all the same, and both events follow every answer.
    const QByteArray list = R"([{"id": 1, "countryName": "Germany"}, {"id": "2", "countryName": "United States"}])";
    const std::pair<QByteArray, int> answers[] = {{list, 2}, {"[]", 0}, {"[{}]", 1}, {"{}", -1}, {"not json", -1}};
    for (const auto &[body, expected] : answers) {
        QVERIFY(m_backend.fault(QStringLiteral("/api1/vpnapi/serverlist"), QStringLiteral("body"), QString(body), 1));
        events.clear();
        NQErrorOpt error;
        bool done = false;
        env.manager().getCountries([&](const QList<NQVPNCountry> &countries, const NQErrorOpt &e) {
            QVERIFY(MainQueue::isMainThread());
            // The list and both events are in place before the completion runs.
            QCOMPARE(events, (QStringList{Events::NOTIFICATION_APP_READY, Events::NOTIFICATION_CLUSTERS_LOADED}));
            QCOMPARE(env.manager().availableCountries().size(), countries.size());
            QCOMPARE(countries.size(), qMax(expected, 0));
            error = e;
            done = true;
        });
        QTRY_VERIFY_WITH_TIMEOUT(done, kVpnWaitMs);
        QCOMPARE(bool(error), expected < 0);
        if (error)
            QCOMPARE((QStringList{error->domain(), QString::number(error->code()), error->localizedDescription()}),
                     (QStringList{"com.pelorin.vpn.ios.vpn.error", "-1",
                                  "Deserialize response body failed for request 'getCountries'."}));
    }
    QCOMPARE(target(4),
             QStringLiteral("/api1/vpnapi/serverlist/20014/KEY/%1/%2?deviceType=2&keyFromStore=true&engine=1")
                 .arg(AppConfig::deviceUniqueID(), AppConfig::appVersion()));
    const QString request = QStringLiteral("|NQVPNManager| Request getCountries");
    QCOMPARE(logs.lines().filter(request).mid(0, 5),
             (QStringList{request, request + ". endpointUrl = '" + m_backend.baseUrl() + target(4) + "'",
                          request + ". request success", request + ". request success. response body deserialized",
                          request + ". request finish. response body = " + list}));
}

void TestVpnCatalogue::requestsReadTheIdentifierOffTheCallersThread()
{
    for (const int request : {0, 1, 2}) { // server list, profile, account
        VpnTestEnvironment env;
        auto secrets = std::make_shared<WatchedSecrets>();
        AppStorageManager::setSharedManagerForTesting(
            std::make_unique<AppStorageManager>(env.root() + QStringLiteral("/watched.conf"),
                                                KeychainStore(QStringLiteral("com.pelorin.vpn.test"), secrets)));
        bool done = false;
        if (request == 0)
            env.manager().getCountries([&](const QList<NQVPNCountry> &, const NQErrorOpt &) { done = true; });
        else if (request == 1)
            env.manager().getCountryVPNConfig(
                7, [&](const QString &, const QString &, const NQErrorOpt &) { done = true; });
        else
            NQIdentityServer::sharedManager().registerVpnApi(
                [&](const QString &, const QString &, const QString &) { done = true; });
        QTRY_VERIFY_WITH_TIMEOUT(done, 20000);
        SecretQueue::drain();
        QVERIFY(secrets->finds > 0);
        QCOMPARE(secrets->findsBlockingTheMainThread.load(), 0);
    }
}

QTEST_GUILESS_MAIN(TestVpnCatalogue)
#include "tst_vpn_catalogue.moc"
