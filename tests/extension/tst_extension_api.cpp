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
} // namespace

// The bridge driven by a real WebSocket client (QtWebSockets) over loopback.
class TestExtensionApi : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<AppStorageManager> storage;
    FakePlatform platform;
    std::unique_ptr<BrowserExtensionApi> api;
    std::unique_ptr<QWebSocket> client;
    QStringList received;
    QList<Event> events;

    std::unique_ptr<AppStorageManager> openStorage()
    {
        return std::make_unique<AppStorageManager>(
            dir->filePath(QStringLiteral("settings.conf")),
            KeychainStore(QStringLiteral("com.pelorin.vpn.mac"),
                          std::make_shared<FileSecretBackend>(dir->filePath(QStringLiteral("secrets.json")))));
    }
    // Sends one message and waits until the bridge has handled it (the bridge answers every
    // message with NT_BROWSER_ANY_EVENT or, for cookie lists, NT_BROWSER_FOUND_COOKIES).
    void sendAndWait(const QString &text)
    {
        const auto before = events.size();
        client->sendTextMessage(text);
        QTRY_VERIFY(events.size() > before);
    }
    QStringList eventNames() const
    {
        QStringList names;
        for (const Event &e : events)
            names << e.name;
        return names;
    }
    int countEvents(const char *name) const { return eventNames().count(QString::fromLatin1(name)); }
    void whitelistMessage(const char *command, const QJsonArray &entries)
    {
        sendAndWait(
            QString::fromUtf8(QJsonDocument(QJsonObject{{QStringLiteral("Command"), QString::fromLatin1(command)},
                                                        {QStringLiteral("Value"), entries}})
                                  .toJson(QJsonDocument::Compact)));
    }
    static QJsonObject entry(const QString &url, int type, qint64 ts)
    {
        return {
            {QStringLiteral("Url"), url}, {QStringLiteral("WhiteListType"), type}, {QStringLiteral("Timestamp"), ts}};
    }

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
        EventBus::defaultCenter().reset();
        for (const char *name :
             {Events::NT_BROWSER_CONNECTED, Events::NT_BROWSER_ANY_EVENT, Events::NT_BROWSER_FOUND_COOKIES,
              Events::NT_BROWSER_BLOCKED, Events::NT_BROWSER_ADS_BLOCKER_ON, Events::NT_BROWSER_ADS_BLOCKER_OFF,
              Events::NT_BROWSER_CHROME_TRACK_ON, Events::NT_BROWSER_CHROME_TRACK_OFF,
              Events::NT_BROWSER_FIREFOX_TRACK_ON, Events::NT_BROWSER_FIREFOX_TRACK_OFF})
            EventBus::defaultCenter().addObserver(this, QString::fromLatin1(name),
                                                  [this](const Event &e) { events << e; });
        client = std::make_unique<QWebSocket>();
        connect(client.get(), &QWebSocket::textMessageReceived, this, [this](const QString &m) { received << m; });
        client->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/Quellon/").arg(api->browserExtWebsocket()->port())));
        QTRY_COMPARE(client->state(), QAbstractSocket::ConnectedState);
        QTRY_COMPARE(api->browserExtWebsocket()->clientCount(), 1);
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
        auto row = [](const char *name, const char *text, Handler h) {
            QTest::newRow(name) << QString::fromUtf8(text) << int(h);
        };
        row("chrome", "{\"Command\":\"CONNECTED\"}", Handler::ChromeConnected);
        row("tracking", "{\"Command\":\"TRACKINGONOFF\",\"Value\":\"ON\"}", Handler::TrackingSwitch);
        row("adblock", "{\"Command\":\"ADBLOCKONOFF\"}", Handler::AdBlockSwitch);
        row("merged", "{\"Command\":\"MERGEDWHITELIST\"}", Handler::MergedWhitelist);
        row("whitelist", "{\"Command\":\"WHITELIST\"}", Handler::Whitelist);
        row("statistics", "{\"DATA\":1}", Handler::Statistics);
        row("firefox", "FirefoxFirstRun", Handler::FirefoxConnected);
        row("framed", "newWhiteList%[]<EOF>", Handler::FramedWhitelist);
        row("chrome off", "ChromeIsOff", Handler::ChromeTrackOff);
        row("chrome on", "ChromeIsOn", Handler::ChromeTrackOn);
        row("firefox on", "FirefoxIsOn", Handler::FirefoxTrackOn);
        row("firefox off", "FirefoxIsOff", Handler::FirefoxTrackOff);
        row("chrome ad on", "ChromeAdBlockerON", Handler::AdsBlockerOn);
        row("firefox ad on", "FirefoxAdBlockerON", Handler::AdsBlockerOn);
        row("chrome ad off", "ChromeAdBlockerOFF", Handler::AdsBlockerOff);
        row("firefox ad off", "FirefoxAdBlockerOFF", Handler::AdsBlockerOff);
        row("blocked", "Cookie%x.org%<EOF>", Handler::BlockedDomain);
        row("cookie", "{\"FOUND_COOKIE\":1}", Handler::FoundCookie);
        row("cookies", "{\"FOUND_COOKIES\":1}", Handler::FoundCookies);
        row("unknown", "hello", Handler::None);
        row("case matters", "connected", Handler::None);
        // Earlier rows win on the whole text.
        row("statistics holding CONNECTED", "{\"DATA\":\"CONNECTED\"}", Handler::ChromeConnected);
        row("framed list holding WHITELIST", "newWhiteList%[{\"Url\":\"WHITELIST\"}]<EOF>", Handler::Whitelist);
        row("cookie named DATA", "Cookie%DATA.org%<EOF>", Handler::Statistics);
    }
    void dispatchTableOrder()
    {
        QFETCH(QString, text);
        QFETCH(int, handler);
        QCOMPARE(ExtensionMessageDispatch::handlerName(ExtensionMessageDispatch::handlerForMessage(text)),
                 ExtensionMessageDispatch::handlerName(Handler(handler)));
    }

    void chromeAnnouncementIsAnsweredTwiceOneSecondApart()
    {
        ClockGuard clock;
        api->storage().storeBlockerWhitelist({});
        sendAndWait(QStringLiteral("{\"Command\":\"CONNECTED\",\"Browser\":\"CHROME\"}"));
        const QStringList once = {
            QStringLiteral("{\"Command\":\"ADBLOCKERONOFF\",\"Value\":\"OFF\",\"Browser\":\"CHROME\"}"),
            QStringLiteral("{\"Command\":\"SETLANGUAGE\",\"Value\":\"%1\",\"Browser\":\"CHROME\"}")
                .arg(LocalString::appLanguageCode()),
            QStringLiteral("{\"Browser\":\"CHROME\",\"Command\":\"WHITELIST\",\"Value\":[]}"),
            QStringLiteral("{\"Command\":\"SCRAMBLE\",\"Browser\":\"CHROME\"}")};
        QTRY_COMPARE(received, once);
        QVERIFY(api->chromeConnected());
        QCOMPARE(countEvents(Events::NT_BROWSER_CONNECTED), 1);
        QCOMPARE(events[eventNames().indexOf(QLatin1String(Events::NT_BROWSER_CONNECTED))].userInfo,
                 (QVariantMap{{QStringLiteral("DATA"), QStringLiteral("Chrome")}}));
        clock.advance(999);
        QTest::qWait(50);
        QCOMPARE(received.size(), 4);
        clock.advance(1);
        QTRY_COMPARE(received, once + once);
        QCOMPARE(countEvents(Events::NT_BROWSER_CONNECTED), 2);
        QCOMPARE(clock.clock.pendingCount(), 0);
    }

    void firefoxAnnouncementSendsSettingsOnlyAndSaysChrome()
    {
        ClockGuard clock;
        api->storage().storeAdsBlockerEnabled(true);
        sendAndWait(QStringLiteral("FirefoxFirstRun"));
        QTRY_COMPARE(received.size(), 2);
        QCOMPARE(json(received[0]).value(QLatin1String("Value")).toString(), QStringLiteral("ON"));
        QCOMPARE(json(received[1]).value(QLatin1String("Command")).toString(), QStringLiteral("SETLANGUAGE"));
        QVERIFY(api->firefoxConnected());
        QVERIFY(!api->chromeConnected());
        const Event connected = events[eventNames().indexOf(QLatin1String(Events::NT_BROWSER_CONNECTED))];
        QCOMPARE(connected.userInfo.value(QStringLiteral("DATA")).toString(), QStringLiteral("Chrome"));
        QCOMPARE(connected.sender, static_cast<const void *>(api.get()));
        QCOMPARE(clock.clock.pendingCount(), 0);
        QTest::qWait(50);
        QCOMPARE(received.size(), 2);
    }

    void switchesStoreAndPostWithoutEcho()
    {
        sendAndWait(QStringLiteral("{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"ON\"}"));
        QVERIFY(api->isAdsBlockerEnabled());
        sendAndWait(QStringLiteral("{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"OFF\"}"));
        QVERIFY(!api->isAdsBlockerEnabled());
        sendAndWait(QStringLiteral("{\"Command\":\"TRACKINGONOFF\",\"Value\":\"ON\"}"));
        sendAndWait(QStringLiteral("{\"Command\":\"TRACKINGONOFF\",\"Value\":\"OFF\"}"));
        for (const char *word : {"ChromeIsOff", "ChromeIsOn", "FirefoxIsOn", "FirefoxIsOff"})
            sendAndWait(QString::fromLatin1(word));
        QStringList withoutAny = eventNames();
        withoutAny.removeAll(QString::fromLatin1(Events::NT_BROWSER_ANY_EVENT));
        QCOMPARE(withoutAny, (QStringList{"NT_BROWSER_ADS_BLOCKER_ON", "NT_BROWSER_ADS_BLOCKER_OFF",
                                          "NT_BROWSER_CHROME_TRACK_ON", "NT_BROWSER_CHROME_TRACK_OFF",
                                          "NT_BROWSER_CHROME_TRACK_OFF", "NT_BROWSER_CHROME_TRACK_ON",
                                          "NT_BROWSER_FIREFOX_TRACK_ON", "NT_BROWSER_FIREFOX_TRACK_OFF"}));
        QCOMPARE(countEvents(Events::NT_BROWSER_ANY_EVENT), 8);
        QTest::qWait(50);
        QVERIFY(received.isEmpty());
    }

    void adBlockerOffAnnouncementSwitchesBlockingOn()
    {
        QVERIFY(!api->isAdsBlockerEnabled());
        sendAndWait(QStringLiteral("ChromeAdBlockerOFF"));
        QVERIFY(api->isAdsBlockerEnabled());
        QTRY_COMPARE(received, QStringList{QStringLiteral(
                                   "{\"Command\":\"ADBLOCKERONOFF\",\"Value\":\"ON\",\"Browser\":\"CHROME\"}")});
        QCOMPARE(countEvents(Events::NT_BROWSER_ADS_BLOCKER_ON), 1);
        QCOMPARE(countEvents(Events::NT_BROWSER_ADS_BLOCKER_OFF), 0);
    }

    void whitelistMergeRules()
    {
        whitelistMessage("WHITELIST", {entry("example.org", 2, 5), entry("one.net", 1, 3), entry("Example.org", 0, 9)});
        auto list = *api->storage().blockerWhitelist();
        QCOMPARE(list.size(), 3);
        QCOMPARE(list[1].url, QStringLiteral("one.net"));
        QVERIFY(!list[1].ads && !list[1].tracking);
        QCOMPARE(list[2].url, QStringLiteral("example.org")); // stored lower case, not merged
        // Same time stamp: nothing changes; newer: flags follow the type.
        whitelistMessage("MERGEDWHITELIST", {entry("example.org", 0, 5)});
        list = *api->storage().blockerWhitelist();
        QVERIFY(!list[0].ads && list[0].tracking);
        sendAndWait(QStringLiteral("newWhiteList%[{\"Url\":\"one.net\",\"WhiteListType\":3,\"Timestamp\":4}]<EOF>"));
        list = *api->storage().blockerWhitelist();
        QVERIFY(list[1].ads && !list[1].tracking);
        QCOMPARE(list[1].timestamp, 4);
        // Capitals never match the lower-case record: another one every time.
        whitelistMessage("WHITELIST", {entry("Example.org", 0, 1)});
        QCOMPARE(api->storage().blockerWhitelist()->size(), 4);
        // Not JSON: the list is stored again unchanged.
        const auto before = *api->storage().blockerWhitelist();
        sendAndWait(QStringLiteral("WHITELIST {not json"));
        QCOMPARE(*api->storage().blockerWhitelist(), before);
        // Sent back in wire form.
        api->sendWhitelist();
        QTRY_COMPARE(received.size(), 1);
        const QJsonObject sent = json(received[0]);
        QCOMPARE(sent.value(QLatin1String("Command")).toString(), QStringLiteral("WHITELIST"));
        const QJsonArray value = sent.value(QLatin1String("Value")).toArray();
        QCOMPARE(value.size(), 4);
        QCOMPARE(value[0].toObject(),
                 (QJsonObject{{"Url", "example.org"}, {"Timestamp", 5}, {"WhiteListType", 2}, {"Removed", 0}}));
        QCOMPARE(value[1].toObject().value(QLatin1String("WhiteListType")).toInt(), 3);
        QCOMPARE(value[3].toObject().value(QLatin1String("WhiteListType")).toInt(), 0);
        QVERIFY(!received[0].contains(QLatin1Char(' ')));
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
        QTest::newRow("type boolean") << "\"b.org\",\"WhiteListType\":true,\"Timestamp\":9" << false;
        QTest::newRow("type null") << "\"b.org\",\"WhiteListType\":null,\"Timestamp\":9" << false;
        QTest::newRow("time stamp as text") << "\"b.org\",\"WhiteListType\":2,\"Timestamp\":\"9\"" << false;
        QTest::newRow("time stamp fraction") << "\"b.org\",\"WhiteListType\":2,\"Timestamp\":9.5" << false;
        QTest::newRow("url a number") << "7,\"WhiteListType\":2,\"Timestamp\":9" << false;
    }
    void looseWhitelistValuesAreRefused()
    {
        QFETCH(QString, values);
        QFETCH(bool, taken);
        api->dispatchMessage(QStringLiteral(
            "{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":\"a.org\",\"WhiteListType\":1,\"Timestamp\":5}]}"));
        QString other = values;
        other.replace(QStringLiteral("\"b.org\""), QStringLiteral("\"a.org\""));
        api->dispatchMessage(
            QStringLiteral("{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":%1},{\"Url\":%2}]}").arg(other, values));
        const QList<WhitelistDomain> list = *api->storage().blockerWhitelist();
        QCOMPARE(list.size(), taken ? 2 : 1);
        QCOMPARE(list[0].timestamp, taken ? 9 : 5);
        QVERIFY(!list[0].ads); // type 0 never came through
        QCOMPARE(list[0].tracking, values.contains(QLatin1String(":2,")) && taken);
    }

    // Cookie names are text (a number is taken as written); a page without a known domain
    // is not named "(null)".
    void foundCookieNamesAndDomains_data()
    {
        QTest::addColumn<QStringList>("messages");
        QTest::addColumn<QStringList>("names");
        QTest::newRow("number name") << QStringList{"{\"Command\":\"FOUND_COOKIE\",\"Value\":42}"} << QStringList{"42"};
        QTest::newRow("object name") << QStringList{"{\"Command\":\"FOUND_COOKIE\",\"Value\":{\"a\":1}}"}
                                     << QStringList{};
        QTest::newRow("list without domain")
            << QStringList{"{\"Command\":\"FOUND_COOKIES\",\"Value\":[\"_ga\",null,3]}"} << QStringList{"_ga", "3"};
        QTest::newRow("list with domain")
            << QStringList{"{\"DATA\":1,\"Value\":\"{\\\"Preventer\\\":{\\\"a\\\":{"
                           "\\\"CurrentDomain\\\":\\\"Shop.example\\\"}}}\"}",
                           "{\"Command\":\"FOUND_COOKIES\",\"Value\":[\"_ga\",[],\"Uid\"]}"}
            << QStringList{"shop.example (_ga)", "shop.example (uid)"};
    }
    void foundCookieNamesAndDomains()
    {
        QFETCH(QStringList, messages);
        QFETCH(QStringList, names);
        for (const QString &message : std::as_const(messages))
            api->dispatchMessage(message);
        QStringList stored;
        for (const QVariant &cookie : api->storage().extensionBlockedCookies())
            stored << cookie.toMap().value(QStringLiteral("NAME")).toString();
        QCOMPARE(stored, names);
    }

    void statisticsStoredWithTopLevelNullsReplaced()
    {
        const QString inner =
            QStringLiteral("{\"all_time\":120,\"this_year\":50,\"this_month\":20,\"this_week\":7,\"this_day\":2,"
                           "\"CurrentDomain\":null,"
                           "\"Preventer\":{\"tab1\":{\"CurrentDomain\":\"news.example\",\"Other\":null}}}");
        const QString message =
            QString::fromUtf8(QJsonDocument(QJsonObject{{"Command", "STATS"}, {"DATA", true}, {"Value", inner}})
                                  .toJson(QJsonDocument::Compact));
        sendAndWait(message);
        const QVariantMap stored = api->storage().extensionStatistics();
        QCOMPARE(stored.value(QStringLiteral("CurrentDomain")), QVariant(QString()));
        QCOMPARE(stored.value(QStringLiteral("CurrentDomain")).userType(), QMetaType::QString);
        QCOMPARE(api->currentDomain(), QStringLiteral("news.example"));
        QCOMPARE(api->countBlockedDomainsAllTime(), 120);
        QCOMPARE(api->countBlockedDomainsThisYear(), 50);
        QCOMPARE(api->countBlockedDomainsThisMonth(), 20);
        QCOMPARE(api->countBlockedDomainsThisWeek(), 7);
        QCOMPARE(api->countBlockedDomainsToday(), 2);
        const Event blocked = events[eventNames().indexOf(QLatin1String(Events::NT_BROWSER_BLOCKED))];
        QCOMPARE(blocked.userInfo.value(QStringLiteral("DATA")).toMap().value(QStringLiteral("all_time")).toInt(), 120);
        // Not JSON inside: an empty object is stored and the events still come.
        sendAndWait(QStringLiteral("{\"DATA\":1,\"Value\":\"{broken\"}"));
        QVERIFY(api->storage().extensionStatistics().isEmpty());
        QCOMPARE(api->countBlockedDomainsAllTime(), 0);
        QCOMPARE(api->currentDomain(), QStringLiteral("news.example"));
    }

    void blockedDomainsCountAndSurviveARestart()
    {
        for (const char *d : {"example.org", "ads.net", "example.org", "ads.net", "example.org", "x.io"})
            sendAndWait(QStringLiteral("Cookie%%1%<EOF>").arg(QString::fromLatin1(d)));
        QCOMPARE(api->blockedDomains().value(QStringLiteral("example.org")).toInt(), 3);
        QCOMPARE(api->blockedDomainsSortedKeys(), (QStringList{"example.org", "ads.net", "x.io"}));
        QCOMPARE(events[eventNames().indexOf(QLatin1String(Events::NT_BROWSER_BLOCKED))].userInfo,
                 (QVariantMap{{QStringLiteral("DATA"), QStringLiteral("example.org")}}));
        sendAndWait(QStringLiteral("{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"ON\"}"));
        // Nothing persisted is lost when the bridge goes away before the delayed write.
        client.reset();
        api.reset();
        storage.reset();
        storage = openStorage();
        ExtensionStorage reopened(*storage);
        QCOMPARE(reopened.blockedDomains().value(QStringLiteral("example.org")).toInt(), 3);
        QCOMPARE(reopened.blockedDomains().value(QStringLiteral("x.io")).toInt(), 1);
        QVERIFY(reopened.adsBlockerEnabled());
        reopened.removeBlockedDomains();
        QVERIFY(reopened.blockedDomains().isEmpty());
        QVERIFY(!storage->contains(QStringLiteral("BlockedDomains")));
    }

    void foundCookiesAreRefreshedByLowerCaseName()
    {
        sendAndWait(QStringLiteral("{\"Command\":\"FOUND_COOKIE\",\"Value\":\"SessionID\"}"));
        QVariantList cookies = api->storage().extensionBlockedCookies();
        QCOMPARE(cookies.size(), 1);
        const double first = cookies[0].toMap().value(QStringLiteral("TIMESTAMP")).toDouble();
        QVERIFY(qAbs(first - QDateTime::currentMSecsSinceEpoch() / 1000.0) < 60);
        QTest::qWait(20);
        sendAndWait(QStringLiteral("{\"Command\":\"FOUND_COOKIE\",\"Value\":\"sessionid\"}"));
        cookies = api->storage().extensionBlockedCookies();
        QCOMPARE(cookies.size(), 1);
        QCOMPARE(cookies[0].toMap().value(QStringLiteral("NAME")).toString(), QStringLiteral("sessionid"));
        QVERIFY(cookies[0].toMap().value(QStringLiteral("TIMESTAMP")).toDouble() > first);
        sendAndWait(QStringLiteral("FOUND_COOKIE not json"));
        QCOMPARE(api->storage().extensionBlockedCookies().size(), 1);

        // Without "Value" the list handler stops before posting anything.
        const int anyBefore = countEvents(Events::NT_BROWSER_ANY_EVENT);
        client->sendTextMessage(QStringLiteral("{\"Command\":\"FOUND_COOKIES\"}"));
        sendAndWait(QStringLiteral("ChromeIsOn")); // a marker that the previous message was handled
        QCOMPARE(countEvents(Events::NT_BROWSER_FOUND_COOKIES), 0);
        QCOMPARE(countEvents(Events::NT_BROWSER_ANY_EVENT), anyBefore + 1);
    }

    void invalidUtf8AndBinaryMessagesAreIgnored()
    {
        // Bytes that are not UTF-8 make no text, whatever words they hold.
        api->webSocketServerDidReceiveData(api->browserExtWebsocket(), "\xff\xfe CONNECTED ChromeIsOn", {});
        QVERIFY(events.isEmpty());
        client->sendBinaryMessage("x"); // opcode 2: the server closes this client
        QTRY_COMPARE(client->state(), QAbstractSocket::UnconnectedState);
        QTRY_COMPARE(api->browserExtWebsocket()->clientCount(), 0);
        QVERIFY(events.isEmpty());
    }

    void presenceFollowsTheConsoleUsersProfiles()
    {
        LogCapture log;
        platform.user = {};
        QVERIFY(api->currentUserHomeDirectory().isNull());
        QVERIFY(!api->isChromeExtensionInstalled());
        const QString home = dir->filePath(QStringLiteral("home"));
        platform.user = {QStringLiteral("alice"), home};
        QCOMPARE(api->currentUserHomeDirectory(), home);
        const QString id = BrowserExtensionApi::chromeExtensionsID();
        QCOMPARE(id.size(), 32);
        QVERIFY(QDir().mkpath(home + "/.config/google-chrome/Profile 5/Extensions/" + id));
        QVERIFY(!api->isChromeExtensionInstalled());
        QVERIFY(api->folderExistsForProfile(5, id));
        QVERIFY(log.lines().contains(QStringLiteral("Extension %1 not found for user %2").arg(id, home)));
        QVERIFY(QDir().mkpath(home + "/.config/google-chrome/Profile 2/Extensions/" + id));
        QVERIFY(api->isChromeExtensionInstalled());
        QVERIFY(api->folderExistsForProfile(2, id));
        QVERIFY(!api->folderExistsForProfile(4, id));
        QVERIFY(!api->extensionIDExistsForDefaultProfile(id));
        QVERIFY(QDir(home + "/.config/google-chrome/Profile 2").removeRecursively());
        const QString unpacked = home + "/.config/chromium/Default/Local Extension Settings/" + id;
        QVERIFY(QDir().mkpath(unpacked));
        log.clear();
        QVERIFY(api->isChromeExtensionInstalled());
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Developer extension found in %1").arg(unpacked)});
        QVERIFY(QDir(home).removeRecursively());
    }

    // The extension in Profile 2 of each way Chrome or Chromium is installed on Linux.
    void presenceInEveryLinuxInstall_data()
    {
        QTest::addColumn<QString>("userData"); // below the home folder
        QTest::addColumn<QString>("configHome");
        QTest::newRow("chrome") << ".config/google-chrome" << QString();
        QTest::newRow("chrome beta") << ".config/google-chrome-beta" << QString();
        QTest::newRow("chrome unstable") << ".config/google-chrome-unstable" << QString();
        QTest::newRow("chromium") << ".config/chromium" << QString();
        QTest::newRow("snap chromium") << "snap/chromium/common/chromium" << QString();
        QTest::newRow("flatpak chrome") << ".var/app/com.google.Chrome/config/google-chrome" << QString();
        QTest::newRow("flatpak chromium") << ".var/app/org.chromium.Chromium/config/chromium" << QString();
        QTest::newRow("XDG_CONFIG_HOME") << "cfg/google-chrome"
                                         << "cfg";
        QTest::newRow("XDG_CONFIG_HOME beta") << "cfg/google-chrome-beta"
                                              << "cfg";
    }
    void presenceInEveryLinuxInstall()
    {
        QFETCH(QString, userData);
        QFETCH(QString, configHome);
        QTemporaryDir home;
        platform.user = {QStringLiteral("alice"), home.path()};
        const QString id = BrowserExtensionApi::chromeExtensionsID();
        QVERIFY(QDir().mkpath(home.filePath(userData + "/Profile 2/Extensions/" + id)));
        QVERIFY(QDir().mkpath(home.filePath(userData + "/Default/Local Extension Settings/" + id)));
        const QByteArray saved = qgetenv("XDG_CONFIG_HOME");
        if (!configHome.isNull())
            qputenv("XDG_CONFIG_HOME", home.filePath(configHome).toLocal8Bit());
        else
            qunsetenv("XDG_CONFIG_HOME");
        LogCapture log;
        const bool installed = api->isChromeExtensionInstalled();
        const bool inProfile = api->folderExistsForProfile(2, id);
        const bool unpacked = api->extensionIDExistsForDebugExtensions(id);
        qputenv("XDG_CONFIG_HOME", saved);
        QVERIFY(installed);
        QVERIFY(inProfile);
        QVERIFY(unpacked);
    }

    // The developer checks look in the running user's own default profile and say so.
    void debugPresenceLogsThePathAndTheAnswer()
    {
        QTemporaryDir home;
        const QByteArray savedHome = qgetenv("HOME");
        const QByteArray savedConfig = qgetenv("XDG_CONFIG_HOME");
        qputenv("HOME", home.path().toLocal8Bit());
        qunsetenv("XDG_CONFIG_HOME");
        platform.user = {};
        const QString id = BrowserExtensionApi::chromeExtensionsID();
        const QString path = home.path() + "/.config/google-chrome/Default/Extensions/" + id;
        LogCapture log;
        const bool before = api->extensionIDExistsForDebugExtensions(id);
        QVERIFY(QDir().mkpath(path));
        const bool after = api->isExtensionInstalledForDebug(id);
        qputenv("HOME", savedHome);
        qputenv("XDG_CONFIG_HOME", savedConfig);
        QVERIFY(!before);
        QVERIFY(after);
        const QString checking = QStringLiteral("Checking extension path: %1").arg(path);
        QCOMPARE(log.lines(),
                 (QStringList{checking, "Extension folder exists: NO", checking, "Extension folder exists: YES"}));
    }

    void portComesFromEnvironmentThenSetting()
    {
        qputenv(BrowserExtensionApi::kPortEnvironmentVariable, "4567");
        QCOMPARE(api->serverPort(), 4567);
        qunsetenv(BrowserExtensionApi::kPortEnvironmentVariable);
        QCOMPARE(api->serverPort(), 80);
        storage->setValue(QString::fromLatin1(BrowserExtensionApi::kPortSettingKey), 8080);
        QCOMPARE(api->serverPort(), 8080);
        // A port someone else holds leaves the bridge without a server; sending does nothing.
        qputenv(BrowserExtensionApi::kPortEnvironmentVariable, QByteArray::number(api->browserExtWebsocket()->port()));
        LogCapture log;
        BrowserExtensionApi second(storage.get(), &platform);
        second.startServer();
        QVERIFY(!second.browserExtWebsocket());
        QCOMPARE(log.lines().value(0), QStringLiteral("|BrowserExtension| startServer."));
        QVERIFY(log.lines().value(1).startsWith(QLatin1String("CVWebSockerServer failed to initialize: ")));
        second.sendScrambleNow();
    }
};

QTEST_GUILESS_MAIN(TestExtensionApi)
#include "tst_extension_api.moc"
