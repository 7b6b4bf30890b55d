#include "extension/BrowserExtensionApi.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/LocalString.h"
#include "platform/linux/LinuxPlatform.h"

#include "support/ClockGuard.h"
#include "support/LogCapture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

using ExtensionMessageDispatch::Handler;

namespace {
class FakePlatform : public LinuxPlatform {
public:
    ConsoleUser user;
    ConsoleUser consoleUser() override { return user; }
};

QJsonObject json(const QString &text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}
QJsonObject chrome(const char *command, const QJsonValue &value = QJsonValue::Undefined)
{
    QJsonObject o{{"Command", command}, {"Browser", "CHROME"}};
    if (!value.isUndefined())
        o.insert("Value", value);
    return o;
}
} // namespace

// The bridge driven by a real WebSocket client (QtWebSockets) over loopback.
class TestExtensionApi : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<AppStorageManager> storage;
    FakePlatform platform;
    std::unique_ptr<BrowserExtensionApi> api;
    std::unique_ptr<QWebSocket> client;
    QList<QJsonObject> received;
    QStringList events;
    QList<Event> posted;

    std::unique_ptr<AppStorageManager> openStorage()
    {
        return std::make_unique<AppStorageManager>(
            dir->filePath("settings.conf"),
            KeychainStore("com.pelorin.vpn.mac", std::make_shared<FileSecretBackend>(dir->filePath("secrets.json"))));
    }
    // Sends one message and waits until the bridge has handled it (every message posts an event).
    void sendAndWait(const QString &text)
    {
        const auto before = events.size();
        client->sendTextMessage(text);
        QTRY_VERIFY(events.size() > before);
    }
    // What the bridge has sent since the last call, once a marker sent now has come through.
    QList<QJsonObject> sent()
    {
        api->sendSetLanguage("marker");
        if (!QTest::qWaitFor([&] { return received.contains(chrome("SETLANGUAGE", "marker")); }, 5000))
            return {chrome("marker lost")};
        const auto at = received.indexOf(chrome("SETLANGUAGE", "marker"));
        const QList<QJsonObject> before = received.mid(0, at);
        received.remove(0, at + 1);
        return before;
    }
    Event lastEvent(const char *name) const { return posted.value(events.lastIndexOf(QLatin1String(name))); }

private slots:
    void init()
    {
        dir = std::make_unique<QTemporaryDir>();
        storage = openStorage();
        qputenv(BrowserExtensionApi::kPortEnvironmentVariable, "0");
        api = std::make_unique<BrowserExtensionApi>(storage.get(), &platform);
        api->startServer();
        QVERIFY(api->browserExtWebsocket());
        received.clear();
        events.clear();
        posted.clear();
        EventBus::defaultCenter().reset();
        for (const char *name :
             {Events::NT_BROWSER_CONNECTED, Events::NT_BROWSER_ANY_EVENT, Events::NT_BROWSER_FOUND_COOKIES,
              Events::NT_BROWSER_BLOCKED, Events::NT_BROWSER_ADS_BLOCKER_ON, Events::NT_BROWSER_ADS_BLOCKER_OFF,
              Events::NT_BROWSER_CHROME_TRACK_ON, Events::NT_BROWSER_CHROME_TRACK_OFF,
              Events::NT_BROWSER_FIREFOX_TRACK_ON, Events::NT_BROWSER_FIREFOX_TRACK_OFF})
            EventBus::defaultCenter().addObserver(this, QString::fromLatin1(name), [this](const Event &e) {
                events << e.name;
                posted << e;
            });
        client = std::make_unique<QWebSocket>();
        connect(client.get(), &QWebSocket::textMessageReceived, this,
                [this](const QString &m) { received << json(m); });
        client->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/Quellon/").arg(api->browserExtWebsocket()->port())));
        QTRY_COMPARE(client->state(), QAbstractSocket::ConnectedState);
    }
    void cleanup()
    {
        client.reset();
        api.reset();
        storage.reset();
        EventBus::defaultCenter().reset();
    }

    void dispatchTableOrder_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("handler");
        const std::pair<const char *, Handler> rows[] = {
            {"{\"Command\":\"CONNECTED\"}", Handler::ChromeConnected},
            {"{\"Command\":\"TRACKINGONOFF\",\"Value\":\"ON\"}", Handler::TrackingSwitch},
            {"{\"Command\":\"ADBLOCKONOFF\"}", Handler::AdBlockSwitch},
            {"{\"Command\":\"MERGEDWHITELIST\"}", Handler::MergedWhitelist},
            {"{\"Command\":\"WHITELIST\"}", Handler::Whitelist},
            {"{\"DATA\":1}", Handler::Statistics},
            {"FirefoxFirstRun", Handler::FirefoxConnected},
            {"newWhiteList%[]<EOF>", Handler::FramedWhitelist},
            {"ChromeIsOff", Handler::ChromeTrackOff},
            {"ChromeIsOn", Handler::ChromeTrackOn},
            {"FirefoxIsOn", Handler::FirefoxTrackOn},
            {"FirefoxIsOff", Handler::FirefoxTrackOff},
            {"FirefoxAdBlockerON", Handler::AdsBlockerOn},
            {"ChromeAdBlockerOFF", Handler::AdsBlockerOff},
            {"Cookie%x.org%<EOF>", Handler::BlockedDomain},
            {"{\"FOUND_COOKIE\":1}", Handler::FoundCookie},
            {"{\"FOUND_COOKIES\":1}", Handler::FoundCookies},
            {"connected", Handler::None},
            // Earlier rows win on the whole text.
            {"{\"DATA\":\"CONNECTED\"}", Handler::ChromeConnected},
            {"newWhiteList%[{\"Url\":\"WHITELIST\"}]<EOF>", Handler::Whitelist},
            {"Cookie%DATA.org%<EOF>", Handler::Statistics},
        };
        for (const auto &[text, handler] : rows)
            QTest::newRow(text) << QString::fromUtf8(text) << int(handler);
    }
    void dispatchTableOrder()
    {
        QFETCH(QString, text);
        QFETCH(int, handler);
        QCOMPARE(ExtensionMessageDispatch::handlerName(ExtensionMessageDispatch::handlerForMessage(text)),
                 ExtensionMessageDispatch::handlerName(Handler(handler)));
    }

    // Chrome's announcement is answered with the settings, the whitelist and a scramble, and
    // again one second later; Firefox's with the settings only, and it says Chrome.
    void announcements()
    {
        ClockGuard clock;
        api->storage().storeBlockerWhitelist({});
        sendAndWait("{\"Command\":\"CONNECTED\",\"Browser\":\"CHROME\"}");
        const QList<QJsonObject> once = {chrome("ADBLOCKERONOFF", "OFF"),
                                         chrome("SETLANGUAGE", LocalString::appLanguageCode()),
                                         chrome("WHITELIST", QJsonArray()), chrome("SCRAMBLE")};
        QCOMPARE(sent(), once);
        QVERIFY(api->chromeConnected() && !api->firefoxConnected());
        QCOMPARE(lastEvent(Events::NT_BROWSER_CONNECTED).userInfo, (QVariantMap{{"DATA", "Chrome"}}));
        clock.advance(999);
        QCOMPARE(clock.clock.pendingCount(), 1);
        clock.advance(1);
        QCOMPARE(sent(), once);
        QCOMPARE(events.count(Events::NT_BROWSER_CONNECTED), 2);

        api->storage().storeAdsBlockerEnabled(true);
        sendAndWait("FirefoxFirstRun");
        QCOMPARE(sent(), (QList{chrome("ADBLOCKERONOFF", "ON"), once[1]}));
        QVERIFY(api->firefoxConnected());
        const Event connected = lastEvent(Events::NT_BROWSER_CONNECTED);
        QCOMPARE(connected.userInfo, (QVariantMap{{"DATA", "Chrome"}}));
        QCOMPARE(connected.sender, static_cast<const void *>(api.get()));
        QCOMPARE(events.count(Events::NT_BROWSER_CONNECTED), 3);
        QCOMPARE(clock.clock.pendingCount(), 0);
    }

    // Switches store and post, answer nothing; an ad blocker turned off in the browser turns ours on.
    void switchesStoreAndPost()
    {
        for (const char *m :
             {"{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"ON\"}", "{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"OFF\"}",
              "{\"Command\":\"TRACKINGONOFF\",\"Value\":\"ON\"}", "{\"Command\":\"TRACKINGONOFF\",\"Value\":\"OFF\"}",
              "ChromeIsOff", "ChromeIsOn", "FirefoxIsOn", "FirefoxIsOff"})
            sendAndWait(m);
        QVERIFY(!api->isAdsBlockerEnabled());
        QCOMPARE(events.count(Events::NT_BROWSER_ANY_EVENT), 8);
        events.removeAll(Events::NT_BROWSER_ANY_EVENT);
        QCOMPARE(events, (QStringList{"NT_BROWSER_ADS_BLOCKER_ON", "NT_BROWSER_ADS_BLOCKER_OFF",
                                      "NT_BROWSER_CHROME_TRACK_ON", "NT_BROWSER_CHROME_TRACK_OFF",
                                      "NT_BROWSER_CHROME_TRACK_OFF", "NT_BROWSER_CHROME_TRACK_ON",
                                      "NT_BROWSER_FIREFOX_TRACK_ON", "NT_BROWSER_FIREFOX_TRACK_OFF"}));
        QVERIFY(sent().isEmpty());
        events.clear();
        sendAndWait("ChromeAdBlockerOFF");
        QVERIFY(api->isAdsBlockerEnabled());
        QCOMPARE(sent(), QList{chrome("ADBLOCKERONOFF", "ON")});
        QVERIFY(events.contains(Events::NT_BROWSER_ADS_BLOCKER_ON) &&
                !events.contains(Events::NT_BROWSER_ADS_BLOCKER_OFF));
    }

    void whitelistMergeRules()
    {
        const auto entry = [](const char *url, int type, int ts) {
            return QJsonObject{{"Url", url}, {"WhiteListType", type}, {"Timestamp", ts}};
        };
        const auto message = [](const char *command, const QJsonArray &entries) {
            return QString::fromUtf8(QJsonDocument(QJsonObject{{"Command", command}, {"Value", entries}}).toJson());
        };
        api->dispatchMessage(
            message("WHITELIST", {entry("example.org", 2, 5), entry("one.net", 1, 3), entry("Example.org", 0, 9)}));
        auto list = *api->storage().blockerWhitelist();
        QCOMPARE(list.size(), 3);
        QVERIFY(!list[1].ads && !list[1].tracking);
        QCOMPARE(list[2].url, "example.org"); // stored lower case, not merged
        // Same time stamp: nothing changes; newer: flags follow the type.
        api->dispatchMessage(message("MERGEDWHITELIST", {entry("example.org", 0, 5)}));
        QVERIFY(!api->storage().blockerWhitelist()->at(0).ads);
        api->dispatchMessage("newWhiteList%[{\"Url\":\"one.net\",\"WhiteListType\":3,\"Timestamp\":4}]<EOF>");
        list = *api->storage().blockerWhitelist();
        QVERIFY(list[1].ads && !list[1].tracking);
        QCOMPARE(list[1].timestamp, 4);
        // Capitals never match the lower-case record: another one every time.
        api->dispatchMessage(message("WHITELIST", {entry("Example.org", 0, 1)}));
        QCOMPARE(api->storage().blockerWhitelist()->size(), 4);
        const auto before = *api->storage().blockerWhitelist();
        api->dispatchMessage("WHITELIST {not json");
        QCOMPARE(*api->storage().blockerWhitelist(), before);
        // Sent back in wire form.
        api->sendWhitelist();
        const auto out = sent();
        QCOMPARE(out.size(), 1);
        const QJsonArray value = out[0]["Value"].toArray();
        QCOMPARE(out[0]["Command"], "WHITELIST");
        QCOMPARE(value.size(), 4);
        QCOMPARE(value[0].toObject(),
                 (QJsonObject{{"Url", "example.org"}, {"Timestamp", 5}, {"WhiteListType", 2}, {"Removed", 0}}));
        QCOMPARE(value[1]["WhiteListType"].toInt(), 3);
        QCOMPARE(value[3]["WhiteListType"].toInt(), 0);
    }

    // Values of the wrong JSON type are refused, never read as 0 (type 0 relaxes both
    // protections); integral numbers of any sign are what the entry's types allow.
    void looseWhitelistValuesAreRefused_data()
    {
        QTest::addColumn<QString>("values"); // "Url" of b.org, "WhiteListType", "Timestamp"
        QTest::addColumn<bool>("taken");
        QTest::newRow("integers") << "\"b.org\",\"WhiteListType\":2,\"Timestamp\":9" << true;
        QTest::newRow("negative type") << "\"b.org\",\"WhiteListType\":-1,\"Timestamp\":9" << true;
        QTest::newRow("type as text") << "\"b.org\",\"WhiteListType\":\"2\",\"Timestamp\":9" << false;
        QTest::newRow("type fraction") << "\"b.org\",\"WhiteListType\":1.5,\"Timestamp\":9" << false;
        QTest::newRow("type null") << "\"b.org\",\"WhiteListType\":null,\"Timestamp\":9" << false;
        QTest::newRow("time stamp as text") << "\"b.org\",\"WhiteListType\":2,\"Timestamp\":\"9\"" << false;
        QTest::newRow("time stamp fraction") << "\"b.org\",\"WhiteListType\":2,\"Timestamp\":9.5" << false;
        QTest::newRow("url a number") << "7,\"WhiteListType\":2,\"Timestamp\":9" << false;
    }
    void looseWhitelistValuesAreRefused()
    {
        QFETCH(QString, values);
        QFETCH(bool, taken);
        api->dispatchMessage(
            "{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":\"a.org\",\"WhiteListType\":1,\"Timestamp\":5}]}");
        QString other = values;
        other.replace("\"b.org\"", "\"a.org\"");
        api->dispatchMessage(
            QStringLiteral("{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":%1},{\"Url\":%2}]}").arg(other, values));
        const QList<WhitelistDomain> list = *api->storage().blockerWhitelist();
        QCOMPARE(list.size(), taken ? 2 : 1);
        QCOMPARE(list[0].timestamp, taken ? 9 : 5);
        QVERIFY(!list[0].ads); // type 0 never came through
        QCOMPARE(list[0].tracking, values.contains(":2,") && taken);
    }

    // Cookie names are text (a number is taken as written), kept in lower case and refreshed
    // when found again; a page without a known domain is not named "(null)".
    void foundCookies_data()
    {
        QTest::addColumn<QStringList>("messages");
        QTest::addColumn<QStringList>("names");
        QTest::newRow("number name") << QStringList{"{\"Command\":\"FOUND_COOKIE\",\"Value\":42}"}
                                     << QStringList{"old", "42"};
        QTest::newRow("object name, not json")
            << QStringList{"{\"Command\":\"FOUND_COOKIE\",\"Value\":{\"a\":1}}", "FOUND_COOKIE not json"}
            << QStringList{"old"};
        QTest::newRow("found again") << QStringList{"{\"Command\":\"FOUND_COOKIE\",\"Value\":\"OLD\"}"}
                                     << QStringList{"old"};
        QTest::newRow("list without domain")
            << QStringList{"{\"Command\":\"FOUND_COOKIES\",\"Value\":[\"_ga\",null,3]}"}
            << QStringList{"old", "_ga", "3"};
        QTest::newRow("list with domain")
            << QStringList{"{\"DATA\":1,\"Value\":\"{\\\"Preventer\\\":{\\\"a\\\":{\\\"CurrentDomain\\\":\\\"Shop."
                           "example\\\"}}}\"}",
                           "{\"Command\":\"FOUND_COOKIES\",\"Value\":[\"_ga\",[],\"Uid\"]}"}
            << QStringList{"old", "shop.example (_ga)", "shop.example (uid)"};
    }
    void foundCookies()
    {
        QFETCH(QStringList, messages);
        QFETCH(QStringList, names);
        api->storage().storeExtensionBlockedCookies({QVariantMap{{"NAME", "old"}, {"TIMESTAMP", 1.0}}});
        for (const QString &message : std::as_const(messages))
            api->dispatchMessage(message);
        QStringList stored;
        for (const QVariant &cookie : api->storage().extensionBlockedCookies()) {
            stored << cookie.toMap().value("NAME").toString();
            const bool foundNow = stored.size() > 1 || QTest::currentDataTag() == QLatin1String("found again");
            QCOMPARE(cookie.toMap().value("TIMESTAMP").toDouble() > QDateTime::currentSecsSinceEpoch() - 60, foundNow);
        }
        QCOMPARE(stored, names);
        // Without "Value" the list handler stops before posting anything.
        const auto before = events.size();
        api->dispatchMessage("{\"Command\":\"FOUND_COOKIES\"}");
        QCOMPARE(events.size(), before);
    }

    void statisticsStoredWithTopLevelNullsReplaced()
    {
        const QString inner =
            "{\"all_time\":120,\"this_year\":50,\"this_month\":20,\"this_week\":7,\"this_day\":2,"
            "\"CurrentDomain\":null,\"Preventer\":{\"t\":{\"CurrentDomain\":\"news.example\",\"Other\":null}}}";
        api->dispatchMessage(
            QJsonDocument(QJsonObject{{"Command", "STATS"}, {"DATA", true}, {"Value", inner}}).toJson());
        const QVariant domain = api->storage().extensionStatistics().value("CurrentDomain");
        QCOMPARE(domain, QVariant(QString()));
        QCOMPARE(domain.userType(), QMetaType::QString);
        QCOMPARE(api->currentDomain(), "news.example");
        QCOMPARE((QList<qint64>{api->countBlockedDomainsAllTime(), api->countBlockedDomainsThisYear(),
                                api->countBlockedDomainsThisMonth(), api->countBlockedDomainsThisWeek(),
                                api->countBlockedDomainsToday()}),
                 (QList<qint64>{120, 50, 20, 7, 2}));
        QCOMPARE(lastEvent(Events::NT_BROWSER_BLOCKED).userInfo.value("DATA").toMap().value("all_time").toInt(), 120);
        // Not JSON inside: an empty object is stored and the events still come.
        api->dispatchMessage("{\"DATA\":1,\"Value\":\"{broken\"}");
        QVERIFY(api->storage().extensionStatistics().isEmpty());
        QCOMPARE(events.count(Events::NT_BROWSER_BLOCKED), 2);
        QCOMPARE(api->currentDomain(), "news.example");
    }

    void blockedDomainsCountAndSurviveARestart()
    {
        for (const char *d : {"example.org", "ads.net", "example.org", "ads.net", "example.org", "x.io"})
            sendAndWait(QStringLiteral("Cookie%%1%<EOF>").arg(QLatin1String(d)));
        QCOMPARE(api->blockedDomainsSortedKeys(), (QStringList{"example.org", "ads.net", "x.io"}));
        QCOMPARE(lastEvent(Events::NT_BROWSER_BLOCKED).userInfo, (QVariantMap{{"DATA", "x.io"}}));
        api->dispatchMessage("{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"ON\"}");
        // Nothing persisted is lost when the bridge goes away before the delayed write.
        client.reset();
        api.reset();
        storage = openStorage();
        ExtensionStorage reopened(*storage);
        QCOMPARE(reopened.blockedDomains(), (QVariantMap{{"example.org", 3}, {"ads.net", 2}, {"x.io", 1}}));
        QVERIFY(reopened.adsBlockerEnabled());
        reopened.removeBlockedDomains();
        QVERIFY(reopened.blockedDomains().isEmpty());
        QVERIFY(!storage->contains("BlockedDomains"));
    }

    void invalidUtf8AndBinaryMessagesAreIgnored()
    {
        api->webSocketServerDidReceiveData(api->browserExtWebsocket(), "\xff\xfe CONNECTED ChromeIsOn", {});
        client->sendBinaryMessage("x"); // the server closes this client
        QTRY_COMPARE(api->browserExtWebsocket()->clientCount(), 0);
        QVERIFY(events.isEmpty());
    }

    void presenceFollowsTheConsoleUsersProfiles()
    {
        LogCapture log;
        QVERIFY(api->currentUserHomeDirectory().isNull());
        QVERIFY(!api->isChromeExtensionInstalled());
        const QString home = dir->filePath("home"), id = BrowserExtensionApi::chromeExtensionsID();
        platform.user = {"alice", home};
        QCOMPARE(api->currentUserHomeDirectory(), home);
        QVERIFY(QDir().mkpath(home + "/.config/google-chrome/Profile 5/Extensions/" + id));
        QVERIFY(api->folderExistsForProfile(5, id));
        QVERIFY(!api->folderExistsForProfile(4, id));
        QVERIFY(!api->extensionIDExistsForDefaultProfile(id));
        QVERIFY(!api->isChromeExtensionInstalled());
        QVERIFY(log.lines().contains(QStringLiteral("Extension %1 not found for user %2").arg(id, home)));
        QVERIFY(QDir().mkpath(home + "/.config/google-chrome/Profile 2/Extensions/" + id));
        QVERIFY(api->isChromeExtensionInstalled());
        QVERIFY(QDir(home + "/.config/google-chrome/Profile 2").removeRecursively());
        const QString unpacked = home + "/.config/chromium/Default/Local Extension Settings/" + id;
        QVERIFY(QDir().mkpath(unpacked));
        log.clear();
        QVERIFY(api->isChromeExtensionInstalled());
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Developer extension found in %1").arg(unpacked)});
        platform.user = {};
    }

    // The extension in Profile 2 of each way Chrome or Chromium is installed on Linux.
    void presenceInEveryLinuxInstall_data()
    {
        QTest::addColumn<QString>("userData"); // below the home folder
        QTest::addColumn<QString>("configHome");
        for (const char *d :
             {".config/google-chrome", ".config/google-chrome-beta", ".config/google-chrome-unstable",
              ".config/chromium", "snap/chromium/common/chromium", ".var/app/com.google.Chrome/config/google-chrome",
              ".var/app/org.chromium.Chromium/config/chromium"})
            QTest::newRow(d) << d << QString();
        QTest::newRow("XDG_CONFIG_HOME") << "cfg/google-chrome-beta"
                                         << "cfg";
    }
    void presenceInEveryLinuxInstall()
    {
        QFETCH(QString, userData);
        QFETCH(QString, configHome);
        QTemporaryDir home;
        platform.user = {"alice", home.path()};
        const QString id = BrowserExtensionApi::chromeExtensionsID();
        QVERIFY(QDir().mkpath(home.filePath(userData + "/Profile 2/Extensions/" + id)));
        QVERIFY(QDir().mkpath(home.filePath(userData + "/Default/Local Extension Settings/" + id)));
        const QByteArray saved = qgetenv("XDG_CONFIG_HOME");
        if (configHome.isNull())
            qunsetenv("XDG_CONFIG_HOME");
        else
            qputenv("XDG_CONFIG_HOME", home.filePath(configHome).toLocal8Bit());
        LogCapture log;
        const QList<bool> found = {api->isChromeExtensionInstalled(), api->folderExistsForProfile(2, id),
                                   api->extensionIDExistsForDebugExtensions(id)};
        qputenv("XDG_CONFIG_HOME", saved);
        platform.user = {};
        QCOMPARE(found, (QList<bool>{true, true, true}));
    }

    // The developer checks look in the running user's own default profile and say so.
    void debugPresenceLogsThePathAndTheAnswer()
    {
        QTemporaryDir home;
        const QByteArray savedHome = qgetenv("HOME"), savedConfig = qgetenv("XDG_CONFIG_HOME");
        qputenv("HOME", home.path().toLocal8Bit());
        qunsetenv("XDG_CONFIG_HOME");
        const QString id = BrowserExtensionApi::chromeExtensionsID();
        const QString path = home.path() + "/.config/google-chrome/Default/Extensions/" + id;
        LogCapture log;
        const bool before = api->extensionIDExistsForDebugExtensions(id);
        QDir().mkpath(path);
        const bool after = api->isExtensionInstalledForDebug(id);
        qputenv("HOME", savedHome);
        qputenv("XDG_CONFIG_HOME", savedConfig);
        QVERIFY(!before && after);
        const QString checking = "Checking extension path: " + path;
        QCOMPARE(log.lines(),
                 (QStringList{checking, "Extension folder exists: NO", checking, "Extension folder exists: YES"}));
    }

    void portComesFromEnvironmentThenSetting()
    {
        qputenv(BrowserExtensionApi::kPortEnvironmentVariable, "4567");
        QCOMPARE(api->serverPort(), 4567);
        qunsetenv(BrowserExtensionApi::kPortEnvironmentVariable);
        QCOMPARE(api->serverPort(), 80);
        storage->setValue(BrowserExtensionApi::kPortSettingKey, 8080);
        QCOMPARE(api->serverPort(), 8080);
        // A port someone else holds leaves the bridge without a server; sending does nothing.
        qputenv(BrowserExtensionApi::kPortEnvironmentVariable, QByteArray::number(api->browserExtWebsocket()->port()));
        LogCapture log;
        BrowserExtensionApi second(storage.get(), &platform);
        second.startServer();
        QVERIFY(!second.browserExtWebsocket());
        QVERIFY(log.lines().value(1).startsWith("CVWebSockerServer failed to initialize: "));
        second.sendScrambleNow();
    }
};

QTEST_GUILESS_MAIN(TestExtensionApi)
#include "tst_extension_api.moc"
