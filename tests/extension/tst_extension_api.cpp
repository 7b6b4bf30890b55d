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

namespace {
class FakePlatform : public LinuxPlatform {
public:
    ConsoleUser user;
    ConsoleUser consoleUser() override { return user; }
};

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
        const auto before = posted.size();
        client->sendTextMessage(text);
        QTRY_VERIFY(posted.size() > before);
    }
    // What the bridge has sent since the last call, once a marker sent now has come through.
    QList<QJsonObject> sent()
    {
        api->sendSetLanguage("marker");
        posted.removeLast(); // the marker's own event
        if (!QTest::qWaitFor([&] { return received.contains(chrome("SETLANGUAGE", "marker")); }, 5000))
            return {chrome("marker lost")};
        const auto at = received.indexOf(chrome("SETLANGUAGE", "marker"));
        const QList<QJsonObject> before = received.mid(0, at);
        received.remove(0, at + 1);
        return before;
    }
    // The events posted so far, in short: "CONNECTED:Chrome ANY_EVENT ...".
    QString said() const
    {
        QStringList out;
        for (const Event &e : posted) {
            const QString data = e.userInfo.value(Events::kData).toString();
            out << QString(e.name).remove("NT_BROWSER_") + (data.isEmpty() ? "" : ":" + data);
        }
        return out.join(' ');
    }
    // What the bridge keeps: whitelist entries as "url type@time", cookie names with "*" when
    // found just now.
    QVariantMap kept()
    {
        QStringList whitelist, cookies;
        for (const WhitelistDomain &d : api->storage().blockerWhitelist().value_or(QList<WhitelistDomain>()))
            whitelist << QStringLiteral("%1 %2@%3").arg(d.url).arg(d.whiteListType()).arg(d.timestamp);
        for (const QVariant &cookie : api->storage().extensionBlockedCookies()) {
            const QVariantMap c = cookie.toMap();
            const bool now = c.value("TIMESTAMP").toDouble() > QDateTime::currentSecsSinceEpoch() - 60;
            cookies << c.value("NAME").toString() + (now ? "*" : "");
        }
        return {{"ads", api->isAdsBlockerEnabled()},
                {"whitelist", whitelist},
                {"domains", api->blockedDomains()},
                {"cookies", cookies}};
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
        posted.clear();
        EventBus::defaultCenter().reset();
        for (const char *name :
             {Events::NT_BROWSER_CONNECTED, Events::NT_BROWSER_ANY_EVENT, Events::NT_BROWSER_FOUND_COOKIES,
              Events::NT_BROWSER_BLOCKED, Events::NT_BROWSER_ADS_BLOCKER_ON, Events::NT_BROWSER_ADS_BLOCKER_OFF,
              Events::NT_BROWSER_CHROME_TRACK_ON, Events::NT_BROWSER_CHROME_TRACK_OFF,
              Events::NT_BROWSER_FIREFOX_TRACK_ON, Events::NT_BROWSER_FIREFOX_TRACK_OFF})
            EventBus::defaultCenter().addObserver(this, QString::fromLatin1(name),
                                                  [this](const Event &e) { posted << e; });
        client = std::make_unique<QWebSocket>();
        connect(client.get(), &QWebSocket::textMessageReceived, this,
                [this](const QString &m) { received << QJsonDocument::fromJson(m.toUtf8()).object(); });
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

    // Chrome's announcement is answered with the settings, the whitelist in wire form and a
    // scramble, and again one second later; Firefox's with the settings only, and it says Chrome.
    void announcements()
    {
        ClockGuard clock;
        api->dispatchMessage("{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":\"a.org\",\"WhiteListType\":2,"
                             "\"Timestamp\":-5}]}");
        posted.clear();
        sendAndWait("{\"Command\":\"CONNECTED\",\"Browser\":\"CHROME\"}");
        const QJsonObject entry{{"Url", "a.org"}, {"Timestamp", -5}, {"WhiteListType", 2}, {"Removed", 0}};
        const QList<QJsonObject> once = {chrome("ADBLOCKERONOFF", "OFF"),
                                         chrome("SETLANGUAGE", LocalString::appLanguageCode()),
                                         chrome("WHITELIST", QJsonArray{entry}), chrome("SCRAMBLE")};
        QCOMPARE(sent(), once);
        QVERIFY(api->chromeConnected() && !api->firefoxConnected());
        clock.advance(999);
        QCOMPARE(clock.clock.pendingCount(), 1);
        clock.advance(1);
        QCOMPARE(sent(), once);
        const QString announced = "ANY_EVENT ANY_EVENT CONNECTED:Chrome ANY_EVENT"; // settings first
        QCOMPARE(said(), announced + " " + announced);

        api->storage().storeAdsBlockerEnabled(true);
        posted.clear();
        sendAndWait("FirefoxFirstRun");
        QCOMPARE(sent(), (QList{chrome("ADBLOCKERONOFF", "ON"), once[1]}));
        QVERIFY(api->firefoxConnected());
        QCOMPARE(said(), announced);
        QCOMPARE(posted[2].sender, static_cast<const void *>(api.get()));
    }

    // Each kind of message: what the bridge keeps, the events it posts and what it answers.
    void messages_data()
    {
        QTest::addColumn<QList<QByteArray>>("messages");
        QTest::addColumn<QVariantMap>("keeps"); // the parts of kept() the row is about
        QTest::addColumn<QString>("events");
        QTest::addColumn<QList<QJsonObject>>("answers");
        const auto row = [](const char *tag, const QList<QByteArray> &messages, const QVariantMap &keeps,
                            const QString &events, const QList<QJsonObject> &answers = {}) {
            QTest::newRow(tag) << messages << keeps << events << answers;
        };
        row("switches",
            {"{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"ON\"}", "{\"Command\":\"ADBLOCKONOFF\",\"Value\":\"OFF\"}",
             "{\"Command\":\"TRACKINGONOFF\",\"Value\":\"ON\"}", "{\"Command\":\"TRACKINGONOFF\",\"Value\":\"OFF\"}",
             "ChromeIsOff", "ChromeIsOn", "FirefoxIsOn", "FirefoxIsOff"},
            {{"ads", false}},
            "ADS_BLOCKER_ON ANY_EVENT ADS_BLOCKER_OFF ANY_EVENT CHROME_TRACK_ON ANY_EVENT CHROME_TRACK_OFF ANY_EVENT "
            "CHROME_TRACK_OFF ANY_EVENT CHROME_TRACK_ON ANY_EVENT FIREFOX_TRACK_ON ANY_EVENT FIREFOX_TRACK_OFF "
            "ANY_EVENT");
        // An ad blocker announced off in the browser turns ours on.
        for (const char *announced : {"ChromeAdBlockerOFF", "FirefoxAdBlockerON"})
            row(announced, {announced}, {{"ads", true}}, "ANY_EVENT ADS_BLOCKER_ON ANY_EVENT",
                {chrome("ADBLOCKERONOFF", "ON")});
        row("blocked domains", {"Cookie%example.org%<EOF>", "Cookie%ads.net%<EOF>", "Cookie%example.org%<EOF>"},
            {{"domains", QVariantMap{{"example.org", 2}, {"ads.net", 1}}}},
            "BLOCKED:example.org ANY_EVENT BLOCKED:ads.net ANY_EVENT BLOCKED:example.org ANY_EVENT");
        row("not UTF-8, no word", {"\xff\xfe CONNECTED ChromeIsOn", "connected"}, {{"ads", false}}, "");
        // Earlier words win on the whole text.
        row("WHITELIST before newWhiteList%",
            {"newWhiteList%[{\"Url\":\"WHITELIST.org\",\"WhiteListType\":2,\"Timestamp\":1}]<EOF>"},
            {{"whitelist", QStringList()}}, "ANY_EVENT");
        row("DATA before Cookie%", {"Cookie%DATA.org%<EOF>"}, {{"domains", QVariantMap()}}, "BLOCKED ANY_EVENT");
        row("CONNECTED before DATA", {"{\"DATA\":\"CONNECTED\"}"}, {{"ads", false}},
            "ANY_EVENT ANY_EVENT CONNECTED:Chrome ANY_EVENT",
            {chrome("ADBLOCKERONOFF", "OFF"), chrome("SETLANGUAGE", LocalString::appLanguageCode()),
             chrome("SCRAMBLE")});

        // Same time stamp: nothing changes; newer: the type follows. Urls are stored in lower
        // case but matched as received, so capitals add another record every time.
        row("whitelist merge",
            {"{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":\"example.org\",\"WhiteListType\":2,\"Timestamp\":5},"
             "{\"Url\":\"one.net\",\"WhiteListType\":1,\"Timestamp\":3},"
             "{\"Url\":\"Example.org\",\"WhiteListType\":0,\"Timestamp\":9}]}",
             "{\"Command\":\"MERGEDWHITELIST\",\"Value\":[{\"Url\":\"example.org\",\"WhiteListType\":0,"
             "\"Timestamp\":5}]}",
             "newWhiteList%[{\"Url\":\"one.net\",\"WhiteListType\":3,\"Timestamp\":4}]<EOF>"},
            {{"whitelist", QStringList{"example.org 2@5", "one.net 3@4", "example.org 0@9"}}},
            "ANY_EVENT ANY_EVENT ANY_EVENT");
        // Values of the wrong JSON type are refused, never read as 0 (type 0 relaxes both
        // protections); integral numbers of any sign are what the entry's types allow.
        const auto loose = [&](const char *tag, const QString &fields, const QStringList &whitelist) {
            const QString both = QString(fields).replace("b.org", "a.org") + "},{\"Url\":" + fields;
            row(tag,
                {"{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":\"a.org\",\"WhiteListType\":1,\"Timestamp\":5}]}",
                 "{\"Command\":\"WHITELIST\",\"Value\":[{\"Url\":" + both.toUtf8() + "}]}"},
                {{"whitelist", whitelist}}, "ANY_EVENT ANY_EVENT");
        };
        loose("negative type", "\"b.org\",\"WhiteListType\":-1,\"Timestamp\":9", {"a.org 1@9", "b.org 1@9"});
        loose("type as text", "\"b.org\",\"WhiteListType\":\"2\",\"Timestamp\":9", {"a.org 1@5"});
        loose("time stamp as text", "\"b.org\",\"WhiteListType\":2,\"Timestamp\":\"9\"", {"a.org 1@5"});
        loose("time stamp fraction", "\"b.org\",\"WhiteListType\":2,\"Timestamp\":9.5", {"a.org 1@5"});
        loose("url a number", "7,\"WhiteListType\":2,\"Timestamp\":9", {"a.org 1@5"});

        // Cookie names are text (a number is taken as written), kept in lower case and refreshed
        // when found again ("old" is there before); a page without a known domain is not named
        // "(null)".
        row("found again", {"{\"Command\":\"FOUND_COOKIE\",\"Value\":\"OLD\"}"}, {{"cookies", QStringList{"old*"}}},
            "ANY_EVENT");
        row("list without domain", {"{\"Command\":\"FOUND_COOKIES\",\"Value\":[\"_ga\",null,3]}"},
            {{"cookies", QStringList{"old", "_ga*", "3*"}}}, "FOUND_COOKIES");
        row("list with domain",
            {"{\"DATA\":1,\"Value\":\"{\\\"Preventer\\\":{\\\"a\\\":{\\\"CurrentDomain\\\":\\\"Shop.example\\\"}}}\"}",
             "{\"Command\":\"FOUND_COOKIES\",\"Value\":[\"_ga\",[],\"Uid\"]}"},
            {{"cookies", QStringList{"old", "shop.example (_ga)*", "shop.example (uid)*"}}},
            "BLOCKED ANY_EVENT FOUND_COOKIES");
        row("list without value", {"{\"Command\":\"FOUND_COOKIES\"}"}, {{"cookies", QStringList{"old"}}}, "");
    }
    void messages()
    {
        QFETCH(QList<QByteArray>, messages);
        QFETCH(QVariantMap, keeps);
        QFETCH(QString, events);
        QFETCH(QList<QJsonObject>, answers);
        ClockGuard clock; // a Chrome announcement is repeated after a second
        api->storage().storeExtensionBlockedCookies({QVariantMap{{"NAME", "old"}, {"TIMESTAMP", 1.0}}});
        for (const QByteArray &message : std::as_const(messages))
            api->webSocketServerDidReceiveData(api->browserExtWebsocket(), message, {});
        const QVariantMap now = kept();
        for (auto it = keeps.cbegin(); it != keeps.cend(); ++it)
            QCOMPARE(now.value(it.key()), it.value());
        QCOMPARE(said(), events);
        QCOMPARE(sent(), answers);
    }

    void statisticsStoredWithTopLevelNullsReplaced()
    {
        const QString inner =
            "{\"all_time\":120,\"this_year\":50,\"this_month\":20,\"this_week\":7,\"this_day\":2,"
            "\"CurrentDomain\":null,\"Preventer\":{\"t\":{\"CurrentDomain\":\"news.example\",\"Other\":null}}}";
        api->dispatchMessage(
            QJsonDocument(QJsonObject{{"Command", "STATS"}, {"DATA", true}, {"Value", inner}}).toJson());
        QCOMPARE(api->storage().extensionStatistics().value("CurrentDomain"), QVariant(QString()));
        QCOMPARE(api->currentDomain(), "news.example");
        QCOMPARE((QList<qint64>{api->countBlockedDomainsAllTime(), api->countBlockedDomainsThisYear(),
                                api->countBlockedDomainsThisMonth(), api->countBlockedDomainsThisWeek(),
                                api->countBlockedDomainsToday()}),
                 (QList<qint64>{120, 50, 20, 7, 2}));
        QCOMPARE(posted.value(0).userInfo.value("DATA").toMap().value("all_time").toInt(), 120);
        // Not JSON inside: an empty object is stored and the events still come.
        api->dispatchMessage("{\"DATA\":1,\"Value\":\"{broken\"}");
        QVERIFY(api->storage().extensionStatistics().isEmpty());
        QCOMPARE(said(), "BLOCKED ANY_EVENT BLOCKED ANY_EVENT");
    }

    void blockedDomainsCountAndSurviveARestart()
    {
        for (const char *d : {"example.org", "ads.net", "example.org", "ads.net", "example.org", "x.io"})
            sendAndWait(QStringLiteral("Cookie%%1%<EOF>").arg(QLatin1String(d)));
        QCOMPARE(api->blockedDomainsSortedKeys(), (QStringList{"example.org", "ads.net", "x.io"}));
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

    // The extension in the console user's Chrome or Chromium, each way those are installed on
    // Linux; installed means the default profile or profiles 1 to 3. The developer check looks
    // in the running user's own default profile and says what it found.
    void presence_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("folder"); // below the home folder, holding the extension; "cfg" is XDG_CONFIG_HOME
        QTest::addColumn<QList<bool>>("found"); // installed, profile 2, profile 5, default, debug
        QTest::addColumn<QStringList>("log");   // "~" the home folder, "ID" the extension
        const auto row = [](const char *tag, const QString &folder, const QList<bool> &found, const QStringList &log,
                            const char *user = "alice") {
            QTest::newRow(tag) << QString(user) << folder << found << log;
        };
        const QString checking = "Checking extension path: ~/.config/google-chrome/Default/Extensions/ID";
        const QStringList notForDebug = {checking, "Extension folder exists: NO"};
        for (const char *d :
             {".config/google-chrome", ".config/google-chrome-beta", ".config/google-chrome-unstable",
              ".config/chromium", "snap/chromium/common/chromium", ".var/app/com.google.Chrome/config/google-chrome",
              ".var/app/org.chromium.Chromium/config/chromium"})
            row(d, QString(d) + "/Profile 2/Extensions", {true, true, false, false, false}, notForDebug);
        row("XDG_CONFIG_HOME", "cfg/google-chrome-beta/Profile 2/Extensions", {true, true, false, false, false},
            {"Checking extension path: ~/cfg/google-chrome/Default/Extensions/ID", "Extension folder exists: NO"});
        row("fifth profile", ".config/google-chrome/Profile 5/Extensions", {false, false, true, false, false},
            QStringList{"Extension ID not found for user ~"} + notForDebug);
        row("default profile", ".config/google-chrome/Default/Extensions", {true, false, false, true, true},
            {checking, "Extension folder exists: YES"});
        const QString unpacked = "snap/chromium/common/chromium/Default/Local Extension Settings";
        row("unpacked", unpacked, {true, false, false, false, true},
            {"Developer extension found in ~/" + unpacked + "/ID"});
        row("nobody at the console", ".config/google-chrome/Default/Extensions", {false, false, false, false, true},
            {checking, "Extension folder exists: YES"}, " ");
    }
    void presence()
    {
        QFETCH(QString, user);
        QFETCH(QString, folder);
        QFETCH(QList<bool>, found);
        QFETCH(QStringList, log);
        QTemporaryDir home;
        const QString id = BrowserExtensionApi::chromeExtensionsID();
        QVERIFY(QDir().mkpath(home.filePath(folder + "/" + id)));
        platform.user = {user, home.path()};
        const QByteArray savedHome = qgetenv("HOME"), savedConfig = qgetenv("XDG_CONFIG_HOME");
        qputenv("HOME", home.path().toLocal8Bit());
        qputenv("XDG_CONFIG_HOME", folder.startsWith("cfg/") ? home.filePath("cfg").toLocal8Bit() : QByteArray());
        LogCapture capture;
        const QList<bool> answers = {api->isChromeExtensionInstalled(), api->folderExistsForProfile(2, id),
                                     api->folderExistsForProfile(5, id), api->extensionIDExistsForDefaultProfile(id),
                                     api->extensionIDExistsForDebugExtensions(id)};
        qputenv("HOME", savedHome);
        qputenv("XDG_CONFIG_HOME", savedConfig);
        platform.user = {};
        QCOMPARE(answers, found);
        QCOMPARE(capture.lines(), log.replaceInStrings("~", home.path()).replaceInStrings("ID", id));
    }

    void portComesFromEnvironmentThenSetting()
    {
        qputenv(BrowserExtensionApi::kPortEnvironmentVariable, "4567");
        QCOMPARE(api->serverPort(), 4567);
        qunsetenv(BrowserExtensionApi::kPortEnvironmentVariable);
        QCOMPARE(api->serverPort(), 80);
        storage->setValue(BrowserExtensionApi::kPortSettingKey, 8080);
        QCOMPARE(api->serverPort(), 8080);
    }
};

QTEST_GUILESS_MAIN(TestExtensionApi)
#include "tst_extension_api.moc"
