#include "ShellFakes.h"
#include "UpdateServer.h"
#include "foundation/BundleExtended.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "shell/AppUpdateManager.h"
#include "shell/NQApplication.h"
#include "shell/SplashVC.h"
#include "support/ClockGuard.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QTest>

class TestSplash : public QObject {
    Q_OBJECT

    std::unique_ptr<ShellSandbox> m_sandbox;
    std::unique_ptr<Journal> m_journal;
    std::unique_ptr<FakeEngine> m_engine;
    std::unique_ptr<FakeWindow> m_window;
    std::unique_ptr<FakeAlerts> m_alerts;
    std::unique_ptr<ClockGuard> m_clock;

    std::unique_ptr<SplashVC> makeSplash() { return std::make_unique<SplashVC>(*m_engine, *m_alerts, *m_window); }
    int restarts = 0;

private slots:
    void init()
    {
        EventBus::defaultCenter().reset();
        m_sandbox = std::make_unique<ShellSandbox>();
        m_journal = std::make_unique<Journal>();
        m_engine = std::make_unique<FakeEngine>(*m_journal);
        m_window = std::make_unique<FakeWindow>(*m_journal);
        m_alerts = std::make_unique<FakeAlerts>();
        m_clock = std::make_unique<ClockGuard>();
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        restarts = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::APP_RESTART),
                                              [this](const Event &) { ++restarts; });
    }
    void cleanup()
    {
        m_clock.reset();
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        m_sandbox.reset();
        EventBus::defaultCenter().reset();
    }

    void updateCheckOnlyAfterTheFirstRunWithAutoUpdateOn()
    {
        const QString line = QStringLiteral("|AppDelegate| Updater: Run Auto-Update on First-Run.");
        LogCapture log;
        m_sandbox->store().storeAutoupdate(true);
        makeSplash()->checkForUpdate();
        QCOMPARE(log.count(line), 0); // first run: not yet
        m_sandbox->store().storeNotFirstRun(true);
        m_sandbox->store().storeAutoupdate(false);
        makeSplash()->checkForUpdate();
        QCOMPARE(log.count(line), 0);
        m_sandbox->store().storeAutoupdate(true);
        makeSplash()->checkForUpdate();
        QCOMPARE(log.count(line), 1);
        QVERIFY(log.lines().contains(QStringLiteral("|AppUpdateManager| checkForUpdate")));
    }

    void noInternetOffersFourChoicesAndRetryChecksOneSecondLater()
    {
        auto splash = makeSplash();
        LogCapture log;
        splash->viewDidLoad();
        m_clock->advance(999);
        QCOMPARE(m_journal->count(QStringLiteral("engine.checkInternet")), 0);
        m_clock->advance(1);
        QCOMPARE(m_journal->count(QStringLiteral("engine.checkInternet")), 1);
        m_engine->internetCompletion(QStringLiteral("No internet"));
        m_clock->advance(0);
        QCOMPARE(m_alerts->shown.size(), 1);
        const AlertRequest &alert = m_alerts->shown.first();
        QCOMPARE(alert.title, QStringLiteral("L(Connection Error)"));
        QCOMPARE(alert.message, QStringLiteral("L(It seems that your connection to our server is lost.)"));
        QCOMPARE(alert.buttons.size(), 4);
        const QStringList titles{"L(Continue)", "L(Retry)", "L(Restart)", "L(Quit)"};
        for (int i = 0; i < 4; ++i) {
            QCOMPARE(alert.buttons.at(i).title, titles.at(i));
            QCOMPARE(alert.buttons.at(i).tag, long(i));
        }
        QVERIFY(log.lines().contains(QStringLiteral("|SplashVC| checkConnection: No internet")));
        QVERIFY(log.osTexts(QStringLiteral("GUI"))
                    .contains(QStringLiteral(
                        "Show Error Alert: { title: 'L(Connection Error)', message: 'L(It seems that your connection "
                        "to our server is lost.)'}, continueOption: 'YES', retryOption: 'YES', restartOption: 'YES, "
                        "quitOption: 'YES' }.")));
        QCOMPARE(splash->state(), SplashVC::State::AlertShown);

        m_alerts->press(SplashVC::kRetryTag);
        m_clock->advance(999);
        QCOMPARE(m_journal->count(QStringLiteral("engine.checkInternet")), 1);
        m_clock->advance(1);
        QCOMPARE(m_journal->count(QStringLiteral("engine.checkInternet")), 2);
        QVERIFY(log.osTexts(QStringLiteral("GUI")).contains(QStringLiteral("Show Error Alert: result: '1'.")));

        // Continue goes home without credentials.
        m_engine->internetCompletion(QStringLiteral("No internet"));
        m_clock->advance(0);
        m_alerts->press(SplashVC::kContinueTag);
        m_clock->advance(0);
        QCOMPARE(m_journal->entries.last(), QStringLiteral("home:L(<app_name>)"));
        QCOMPARE(m_journal->count(QStringLiteral("engine.registerVpn:2:0")), 0);
        QCOMPARE(splash->state(), SplashVC::State::Left);
    }

    // Stored 3 s after the answer whether or not the start-up screen is still there by then.
    void credentialsAreStoredThreeSecondsAfterSuccess_data()
    {
        QTest::addColumn<QString>("screenGone"); // when the start-up screen goes away
        QTest::newRow("stays") << "never";
        QTest::newRow("gone before the answer") << "before";
        QTest::newRow("gone during the delay") << "during";
    }
    void credentialsAreStoredThreeSecondsAfterSuccess()
    {
        QFETCH(QString, screenGone);
        auto splash = makeSplash();
        splash->viewDidLoad();
        m_clock->advance(1000);
        m_engine->internetCompletion(QString());
        QCOMPARE(m_journal->count(QStringLiteral("engine.registerVpn:2:0")), 1);
        if (screenGone == QLatin1String("before"))
            splash.reset();
        m_engine->registerCompletion(true, QStringLiteral("user7"), QStringLiteral("secret7"), std::nullopt);
        m_clock->advance(2999);
        QCOMPARE(m_sandbox->store().getVpnCredentials().username, QString());
        QVERIFY(!m_journal->entries.last().startsWith(QStringLiteral("home:")));
        if (screenGone == QLatin1String("during"))
            splash.reset();
        m_clock->advance(1);
        QCOMPARE(m_sandbox->store().getVpnCredentials().username, QStringLiteral("user7"));
        QCOMPARE(m_sandbox->store().getVpnCredentials().password, QStringLiteral("secret7"));
        QCOMPARE(m_journal->count(QStringLiteral("home:L(<app_name>)")), splash ? 1 : 0);
    }

    void successWithoutPasswordIsCodeFiveWithOnlyRetry()
    {
        auto splash = makeSplash();
        LogCapture log;
        splash->registerVpn();
        m_engine->registerCompletion(true, QStringLiteral("user7"), QString(), std::nullopt);
        m_clock->advance(5000);
        QCOMPARE(m_alerts->shown.size(), 1);
        const AlertRequest &alert = m_alerts->shown.first();
        QCOMPARE(alert.title, QStringLiteral("Connection Error"));
        QCOMPARE(alert.message, QStringLiteral("It seems that your connection to our server is lost.\nPlease fix "
                                               "connection and try again.\nCode: 5"));
        QCOMPARE(alert.buttons.size(), 1);
        QCOMPARE(alert.buttons.first().tag, SplashVC::kRetryTag);
        QVERIFY(log.lines().contains(QStringLiteral("|SplashVC| registerVpn FAILED: (null)")));
        QCOMPARE(m_sandbox->store().getVpnCredentials().username, QString());
        m_alerts->press(SplashVC::kRetryTag);
        QCOMPARE(m_journal->count(QStringLiteral("engine.registerVpn:2:0")), 2);
        // An error with a full pair is a failure as well.
        m_engine->registerCompletion(true, QStringLiteral("u"), QStringLiteral("p"), NQError(QStringLiteral("d"), 7));
        m_clock->advance(5000);
        QCOMPARE(m_alerts->shown.size(), 2);
        QCOMPARE(m_sandbox->store().getVpnCredentials().username, QString());
    }

    void restartWhileConnectedStopsTunnelAndRestartsFiveSecondsLater()
    {
        auto splash = makeSplash();
        m_sandbox->store().storeVPNStatus(3);
        splash->showAlertNoInternetWithContinueBlock([] {}, [] {});
        m_clock->advance(0);
        m_alerts->press(SplashVC::kRestartTag);
        QCOMPARE(m_journal->count(QStringLiteral("engine.stopVPN")), 1);
        m_clock->advance(4999);
        QCOMPARE(restarts, 0);
        m_clock->advance(1);
        QCOMPARE(restarts, 1);

        m_sandbox->store().storeVPNStatus(1);
        splash->showAlertNoInternetWithContinueBlock([] {}, [] {});
        m_clock->advance(0);
        m_alerts->press(SplashVC::kRestartTag);
        m_clock->advance(5000);
        QCOMPARE(m_journal->count(QStringLiteral("engine.stopVPN")), 1);
        QCOMPARE(restarts, 2);
    }

    void quitAsksTheApplicationUnknownResultIsAFaultAndCloseIsTheDefault()
    {
        int exits = 0;
        NQApplication app({}, [&] { ++exits; });
        auto splash = makeSplash();
        splash->showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), {}, {}, false, true);
        m_clock->advance(0);
        m_alerts->press(SplashVC::kQuitTag);
        QCOMPARE(exits, 1);

        LogCapture log;
        splash->showErrorMessage(QString(), QString());
        m_clock->advance(0);
        QVERIFY(m_alerts->shown.last().buttons.isEmpty());
        m_alerts->press(AlertPresenter::kDefaultButtonTag);
        QCOMPARE(log.osRecords().last().level, OsLog::Level::Fault);
        QCOMPARE(log.osRecords().last().text,
                 QStringLiteral("Show Error Alert: FATAL ERROR: 'Unknown option - 1000'."));

        // Closed with the window's own button: the default (first) choice, never a dead end.
        int retries = 0;
        splash->showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), {}, [&] { ++retries; });
        m_clock->advance(0);
        m_alerts->press(AlertPresenter::kDefaultButtonTag);
        QCOMPARE(retries, 1);
        QCOMPARE(log.osRecords().last().text, QStringLiteral("Show Error Alert: result: '1'."));
    }

    void appReadyOpensHomeTwoSecondsLaterAndSubscribesOnce()
    {
        auto splash = makeSplash();
        LogCapture log;
        splash->notificationsSubscribe();
        splash->notificationsSubscribe();
        QCOMPARE(log.osTexts(QStringLiteral("SplashVC")),
                 (QStringList{QStringLiteral("Notifications: Subscribe."),
                              QStringLiteral("Notifications: Subscribe FAILED with error: 'Already subscribed.'.")}));
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        QVERIFY(log.lines().contains(QStringLiteral("|SplashVC| NT_APP_READY")));
        m_clock->advance(1999);
        QCOMPARE(log.count(QStringLiteral("|SplashVC| openHome.")), 0);
        m_clock->advance(1);
        QCOMPARE(log.count(QStringLiteral("|SplashVC| openHome.")), 1);
        QCOMPARE(m_journal->count(QStringLiteral("home:L(<app_name>)")), 1);
        // Once home replaced the screen, a later openHome changes nothing.
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        m_clock->advance(2000);
        QCOMPARE(log.count(QStringLiteral("|SplashVC| openHome.")), 2);
        QCOMPARE(m_journal->count(QStringLiteral("home:L(<app_name>)")), 1);
        // A dropped screen is not called back.
        splash.reset();
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        m_clock->advance(2000);
        QCOMPARE(log.count(QStringLiteral("|SplashVC| openHome.")), 2);
    }

    void openHomeWaitsWhileAnUpdateDownloads()
    {
        UpdateServer server;
        const QString resources = m_sandbox->dir.filePath(QStringLiteral("res"));
        QDir().mkpath(resources);
        UpdateServer::writeConfig(resources, server.url(QStringLiteral("/latest")), server.silentUrl());
        Platform::setInstance(std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{
            .downloadsDirectory = m_sandbox->overrides().downloadsDirectory, .resourcesDirectory = resources}));
        AppUpdateManager::sharedManager().downloadAndInstallPKG();
        QVERIFY(AppUpdateManager::sharedManager().isDownloading());
        auto splash = makeSplash();
        splash->openHome();
        m_clock->advance(100);
        QCOMPARE(m_journal->count(QStringLiteral("home:L(<app_name>)")), 0);
        QCOMPARE(splash->state(), SplashVC::State::Loading);
    }
};

QTEST_GUILESS_MAIN(TestSplash)
#include "tst_splash.moc"
