// The start-up flow: the application delegate and its start-up screen against a stand-in for the
// window, the engine, the alerts and the browser, with every delay on the test clock.
#include "ShellFakes.h"
#include "foundation/AppConfig.h"
#include "foundation/EventNames.h"
#include "shell/AppDelegate.h"
#include "shell/AppUpdateManager.h"
#include "shell/NQAppKit.h"
#include "shell/SplashVC.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QTest>

namespace {
// "title|message|button=tag,...": the alert as the user sees it.
QString shown(const AlertRequest &alert)
{
    QStringList buttons;
    for (const auto &button : alert.buttons)
        buttons << QStringLiteral("%1=%2").arg(button.title).arg(button.tag);
    return alert.title + QLatin1Char('|') + alert.message + QLatin1Char('|') + buttons.join(QLatin1Char(','));
}
} // namespace

class TestAppDelegate : public QObject {
    Q_OBJECT

    std::unique_ptr<ShellWorld> w;
    FakeShell *f = nullptr;
    std::unique_ptr<NQApplication> m_app;
    std::unique_ptr<AppDelegate> m_delegate;
    int m_exits = 0;
    int m_restarts = 0;

    void launch(const QStringList &arguments, bool terminal = true)
    {
        m_delegate.reset();
        m_app = std::make_unique<NQApplication>(arguments, [this] { ++m_exits; });
        AppDelegate::Options options;
        options.launcherPath = w->dir.filePath(QStringLiteral("no-launcher"));
        options.standardErrorIsTerminal = [terminal] { return terminal; };
        options.reopenStandardError = [](const QString &) { return true; };
        m_delegate = std::make_unique<AppDelegate>(*m_app, *f, *f, *f, *f, options);
        m_delegate->applicationDidFinishLaunching();
    }
    void answerLabels(const QString &postInstall, const QString &postUninstall = {}, NQErrorOpt error = {})
    {
        std::exchange(f->labelCompletion, nullptr)(QStringLiteral("https://support.example"), postInstall,
                                                   postUninstall, error);
    }
    std::unique_ptr<SplashVC> makeSplash() { return std::make_unique<SplashVC>(*f, *f, *f); }
    // `happened` stays false until `ms` have passed on the clock, and is true from then on.
    void happensAfter(int ms, const std::function<bool()> &happened)
    {
        w->clock.advance(ms - 1);
        QVERIFY(!happened());
        w->clock.advance(1);
        QVERIFY(happened());
    }

private slots:
    void init()
    {
        w = std::make_unique<ShellWorld>();
        f = &w->fake;
        m_exits = m_restarts = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::APP_RESTART),
                                              [this](const Event &) { ++m_restarts; });
    }
    void cleanup()
    {
        m_delegate.reset();
        m_app.reset();
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        w.reset();
    }

    // CLEAR_USERDEFAULTS: every setting back to its default, the keychain kept, the login item
    // added as the defaults want. CLEAR_VPN: only the credentials go. Started by the session's
    // autostart entry the window stays hidden until the second activation.
    void launchArguments()
    {
        AppStorageManager &store = w->store();
        for (const char *argument : {"CLEAR_VPN", "CLEAR_USERDEFAULTS"}) {
            store.storeLastConnectedCluster(QStringLiteral("Canada"));
            store.storeAppAutorunEnabled(false);
            store.storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
            launch({QLatin1String(argument)});
            const bool all = qstrcmp(argument, "CLEAR_USERDEFAULTS") == 0;
            QCOMPARE(store.getVpnCredentials().password, all ? QStringLiteral("p") : QString());
            QCOMPARE(store.lastConnectedCluster(), all ? QString() : QStringLiteral("Canada"));
            QCOMPARE(NQAppKit::appIsInLoginItems(), all);
        }
        store.storeAppAutorunEnabled(false); // not wanted any more: taken out again
        f->journal.clear();
        launch({Platform::instance().loginItemArgument()});
        QVERIFY(!NQAppKit::appIsInLoginItems());
        QCOMPARE(f->count("window.activateHidden"), 1);
        m_app->activate();
        QCOMPARE(f->count("window.show"), 0);
        m_app->activate();
        QCOMPARE(f->count("window.show"), 1);
    }

    // The launch's steps, then the label and extension answers; without an extension link the
    // store page is kept.
    void launchAndConfigAnswersAcrossLaunches()
    {
        LogCapture log;
        const QString marker = w->dataDir() + QStringLiteral("/nqpostuninstall");
        const QString device = AppConfig::deviceUniqueID();
        w->store().setVpnDisabled(true);
        launch({});
        QCOMPARE(f->count("engine.startExtension"), 1);
        QVERIFY(!w->store().vpnDisabled());
        QVERIFY(log.osTexts(QStringLiteral("Delegate")).contains(QStringLiteral("|VPN| Run service. BEGIN")));
        QCOMPARE(log.lines().first(),
                 QStringLiteral("[AppDelegate] Handle notification: 'NSApplicationDidFinishLaunchingNotification"));
        answerLabels(QString()); // no links yet: nothing opened, the flag stays off
        QCOMPARE(QString::fromUtf8(contentOf(marker)), QStringLiteral("<empty>,%1,2.1.0.45").arg(device));
        f->extensionCompletion(false, QStringLiteral("https://ignored"), std::nullopt);
        QCOMPARE(w->store().labelConfigBrowserChromeLink(),
                 QStringLiteral("https://chromewebstore.google.com/detail/quellon/kembcdlbgbcnnchcnbdhbmbhbejnedjf"));
        launch({});
        answerLabels(QStringLiteral("https://welcome.example/"), QStringLiteral("https://bye.example"));
        QCOMPARE(QString::fromUtf8(contentOf(marker)), QStringLiteral("https://bye.example,%1,2.1.0.45").arg(device));
        f->extensionCompletion(true, QStringLiteral("https://ext.example"), std::nullopt);
        QCOMPARE(w->store().labelConfigBrowserChromeLink(), QStringLiteral("https://ext.example"));
        launch({});
        answerLabels(QStringLiteral("https://welcome.example/")); // opened once only
        QCOMPARE(f->opened, QStringList{QStringLiteral("https://welcome.example/")});
        // A failed request stores nothing; the stored links stay and the marker is still written.
        QFile::remove(marker);
        launch({});
        answerLabels(QStringLiteral("https://x"), QStringLiteral("https://y"), NQError(QStringLiteral("net"), -1001));
        QCOMPARE(w->store().supportLink(), QStringLiteral("https://support.example"));
        QVERIFY(anyStartsWith(log.lines(), QStringLiteral("|AppDelegate| getLabelConfig FAILED: ")));
        QVERIFY(contentOf(marker).startsWith("https://bye.example,"));
    }

    // A restart rebuilds the window and the tray; the tray's Quit while connected stops the
    // tunnel and tries again every three seconds.
    void restartThenQuitWhileConnected()
    {
        LogCapture log;
        launch({});
        EventBus::defaultCenter().post(QLatin1String(Events::APP_RESTART));
        QCOMPARE(f->count("window.drop"), 1);
        QCOMPARE(f->count("window.create"), 2);
        // The tray's Settings entry opens the window and asks for the settings screen.
        int settings = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::SHOW_SETTINGS),
                                              [&](const Event &) { ++settings; });
        f->lastMenu.items.at(2).action();
        w->clock.advance(0);
        QCOMPARE(settings, 1);
        QCOMPARE(f->count("window.deminiaturize"), 1);

        w->store().storeVPNStatus(3);
        f->lastMenu.items.at(4).action();                                    // the tray's Quit
        happensAfter(3000, [&] { return f->count("engine.stopVPN") == 2; }); // still connected: again
        w->store().storeVPNStatus(1);
        happensAfter(3000, [&] { return m_exits == 1; });
        m_app->activate(); // an application that has ended shows nothing any more
        QCOMPARE(f->count("window.show"), 2);
        QVERIFY(w->store().notFirstRun());
        QCOMPARE(f->count("engine.flushExtension"), 1);
        QVERIFY(log.osTexts(QStringLiteral("Delegate")).contains(QStringLiteral("|VPN| Close service. BEGIN")));
    }

    // The journeys read the real program's log: they notice a log kept on the terminal.
    void logFileIsFreshAndPrivateOrStaysOnStandardError()
    {
        // An older version left the folder and the log readable by everyone.
        const QString logPath = w->dataDir() + QStringLiteral("/app_mac_logs.log");
        constexpr auto kOpen = QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;
        QDir().mkpath(w->dataDir());
        QVERIFY(QFile::setPermissions(w->dataDir(), kOpen | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther));
        QVERIFY(writeFile(logPath, "previous session", kOpen));
        launch({}, false);
        QCOMPARE(QFileInfo(logPath).size(), 0);
        QCOMPARE(QFileInfo(logPath).permissions() & 0x7077, QFile::ReadOwner | QFile::WriteOwner);
        QCOMPARE(QFileInfo(w->dataDir()).permissions() & 0x7077,
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

        // The data folder's place taken by a file: nothing can be created there.
        QVERIFY(QDir(w->dataDir()).removeRecursively());
        QVERIFY(writeFile(w->dataDir(), {}));
        LogCapture log;
        launch({}, false);
        QVERIFY(anyStartsWith(log.lines(), QStringLiteral("|AppDelegate| Cannot redirect the log to ")));
    }

    void alertsOfTheStartUpScreen()
    {
        auto splash = makeSplash();
        splash->viewDidLoad();
        happensAfter(1000, [&] { return f->count("engine.checkInternet") == 1; });
        f->internetCompletion(QStringLiteral("No internet"));
        w->clock.advance(0);
        QCOMPARE(shown(f->alerts.value(0)), QStringLiteral("L(Connection Error)|L(It seems that your connection to our "
                                                           "server is lost.)|L(Continue)=0,L(Retry)=1,L(Restart)=2,"
                                                           "L(Quit)=3"));
        // Continue goes home without credentials.
        f->press(SplashVC::kContinueTag);
        w->clock.advance(0);
        QCOMPARE(f->journal.last(), QStringLiteral("home:L(<app_name>)"));

        // Success without a password: code 5 with only Retry.
        splash->registerVpn();
        f->registerCompletion(true, QStringLiteral("user7"), QString(), std::nullopt);
        w->clock.advance(5000);
        QCOMPARE(shown(f->alerts.value(1)), QStringLiteral("Connection Error|It seems that your connection to our "
                                                           "server is lost.\nPlease fix connection and try again.\n"
                                                           "Code: 5|L(Retry)=1"));
        f->press(SplashVC::kRetryTag);
        QCOMPARE(f->count("engine.registerVpn:2:0"), 2);

        // Restart stops a connected tunnel and restarts five seconds later.
        for (const int status : {3, 1}) {
            w->store().storeVPNStatus(status);
            const int stops = f->count("engine.stopVPN");
            const int restarts = m_restarts;
            splash->showAlertNoInternetWithContinueBlock([] {}, [] {});
            w->clock.advance(0);
            f->press(SplashVC::kRestartTag);
            QCOMPARE(f->count("engine.stopVPN"), stops + (status == 3 ? 1 : 0));
            happensAfter(5000, [&] { return m_restarts == restarts + 1; });
        }

        // Quit asks the application; an unknown answer is a fault; closed is the default.
        NQApplication app({}, [this] { ++m_exits; });
        splash->showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), {}, {}, false, true);
        w->clock.advance(0);
        f->press(SplashVC::kQuitTag);
        QCOMPARE(m_exits, 1);

        LogCapture log;
        splash->showErrorMessage(QString(), QString());
        w->clock.advance(0);
        f->press(AlertPresenter::kDefaultButtonTag);
        QCOMPARE(log.osRecords().last().level, OsLog::Level::Fault);
        QCOMPARE(log.osRecords().last().text,
                 QStringLiteral("Show Error Alert: FATAL ERROR: 'Unknown option - 1000'."));

        // Closed with the window's own button: the default (first) choice, never a dead end.
        int retries = 0;
        splash->showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), {}, [&] { ++retries; });
        w->clock.advance(0);
        f->press(AlertPresenter::kDefaultButtonTag);
        QCOMPARE(retries, 1);
    }

    // The start-up screen's sequence: the update check only after the first run with auto-update
    // on; the app-ready notice opens home two seconds later, subscribed once.
    void startUpSequence()
    {
        struct Case {
            bool notFirstRun, autoupdate, checks;
        };
        for (const Case c : {Case{false, true, false}, Case{true, false, false}, Case{true, true, true}}) {
            LogCapture log;
            w->store().storeNotFirstRun(c.notFirstRun);
            w->store().storeAutoupdate(c.autoupdate);
            makeSplash()->checkForUpdate();
            QCOMPARE(log.lines().contains(QStringLiteral("|AppUpdateManager| checkForUpdate")), c.checks);
        }

        auto splash = makeSplash();
        LogCapture log;
        splash->notificationsSubscribe();
        splash->notificationsSubscribe();
        QCOMPARE(log.osTexts(QStringLiteral("SplashVC")).size(), 2); // the second is refused
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        happensAfter(2000, [&] { return f->count("home:L(<app_name>)") == 1; });
        // Once home replaced the screen, a later openHome changes nothing.
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        w->clock.advance(2000);
        QCOMPARE(log.count(QStringLiteral("|SplashVC| openHome.")), 2);
        QCOMPARE(f->count("home:L(<app_name>)"), 1);

        // The credentials are stored 3 s after the answer whether or not the start-up screen is
        // still there by then.
        for (const bool screenGone : {false, true}) {
            w->store().removeVpnCredentials();
            auto screen = makeSplash();
            screen->viewDidLoad();
            w->clock.advance(1000);
            f->internetCompletion(QString());
            QCOMPARE(f->count("engine.registerVpn:2:0"), 1 + int(screenGone));
            f->registerCompletion(true, QStringLiteral("user7"), QStringLiteral("secret7"), std::nullopt);
            w->clock.advance(2999);
            QCOMPARE(w->store().getVpnCredentials().username, QString());
            if (screenGone)
                screen.reset();
            w->clock.advance(1);
            QCOMPARE(w->store().getVpnCredentials().username, QStringLiteral("user7"));
            QCOMPARE(f->count("home:L(<app_name>)"), 2); // the app-ready one and the first round's
        }
    }
};

QTEST_GUILESS_MAIN(TestAppDelegate)
#include "tst_app_delegate.moc"
