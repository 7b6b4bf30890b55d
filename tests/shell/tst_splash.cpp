#include "ShellFakes.h"
#include "UpdateServer.h"
#include "foundation/EventNames.h"
#include "shell/AppUpdateManager.h"
#include "shell/NQApplication.h"
#include "shell/SplashVC.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QTest>

class TestSplash : public QObject {
    Q_OBJECT

    std::unique_ptr<ShellWorld> w;
    int m_restarts = 0;

    std::unique_ptr<SplashVC> makeSplash() { return std::make_unique<SplashVC>(w->engine, w->alerts, w->window); }
    int count(const char *entry) const { return w->journal.count(QString::fromLatin1(entry)); }

private slots:
    void init()
    {
        w = std::make_unique<ShellWorld>();
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        m_restarts = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::APP_RESTART),
                                              [this](const Event &) { ++m_restarts; });
    }
    void cleanup()
    {
        AppUpdateManager::setSharedManagerForTesting(nullptr);
        w.reset();
    }

    void updateCheckOnlyAfterTheFirstRunWithAutoUpdateOn()
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
    }

    void noInternetOffersFourChoicesAndRetryChecksOneSecondLater()
    {
        auto splash = makeSplash();
        LogCapture log;
        splash->viewDidLoad();
        w->clock.advance(999);
        QCOMPARE(count("engine.checkInternet"), 0);
        w->clock.advance(1);
        QCOMPARE(count("engine.checkInternet"), 1);
        w->engine.internetCompletion(QStringLiteral("No internet"));
        w->clock.advance(0);
        QCOMPARE(w->alerts.shown.size(), 1);
        const AlertRequest &alert = w->alerts.shown.first();
        QCOMPARE(alert.title, QStringLiteral("L(Connection Error)"));
        QCOMPARE(alert.message, QStringLiteral("L(It seems that your connection to our server is lost.)"));
        QStringList buttons;
        for (const auto &button : alert.buttons)
            buttons << QStringLiteral("%1=%2").arg(button.title).arg(button.tag);
        QCOMPARE(buttons, (QStringList{"L(Continue)=0", "L(Retry)=1", "L(Restart)=2", "L(Quit)=3"}));
        QVERIFY(log.osTexts(QStringLiteral("GUI"))
                    .contains(QStringLiteral(
                        "Show Error Alert: { title: 'L(Connection Error)', message: 'L(It seems that your connection "
                        "to our server is lost.)'}, continueOption: 'YES', retryOption: 'YES', restartOption: 'YES, "
                        "quitOption: 'YES' }.")));
        QCOMPARE(splash->state(), SplashVC::State::AlertShown);

        w->alerts.press(SplashVC::kRetryTag);
        w->clock.advance(999);
        QCOMPARE(count("engine.checkInternet"), 1);
        w->clock.advance(1);
        QCOMPARE(count("engine.checkInternet"), 2);

        // Continue goes home without credentials.
        w->engine.internetCompletion(QStringLiteral("No internet"));
        w->clock.advance(0);
        w->alerts.press(SplashVC::kContinueTag);
        w->clock.advance(0);
        QCOMPARE(w->journal.entries.last(), QStringLiteral("home:L(<app_name>)"));
        QCOMPARE(count("engine.registerVpn:2:0"), 0);
        QCOMPARE(splash->state(), SplashVC::State::Left);
    }

    // Stored 3 s after the answer whether or not the start-up screen is still there by then.
    void credentialsAreStoredThreeSecondsAfterSuccess_data()
    {
        QTest::addColumn<QString>("screenGone");
        QTest::newRow("stays") << "never";
        QTest::newRow("gone before the answer") << "before";
        QTest::newRow("gone during the delay") << "during";
    }
    void credentialsAreStoredThreeSecondsAfterSuccess()
    {
        QFETCH(QString, screenGone);
        auto splash = makeSplash();
        splash->viewDidLoad();
        w->clock.advance(1000);
        w->engine.internetCompletion(QString());
        QCOMPARE(count("engine.registerVpn:2:0"), 1);
        if (screenGone == QLatin1String("before"))
            splash.reset();
        w->engine.registerCompletion(true, QStringLiteral("user7"), QStringLiteral("secret7"), std::nullopt);
        w->clock.advance(2999);
        QCOMPARE(w->store().getVpnCredentials().username, QString());
        QVERIFY(!w->journal.entries.last().startsWith(QStringLiteral("home:")));
        if (screenGone == QLatin1String("during"))
            splash.reset();
        w->clock.advance(1);
        QCOMPARE(w->store().getVpnCredentials().username, QStringLiteral("user7"));
        QCOMPARE(w->store().getVpnCredentials().password, QStringLiteral("secret7"));
        QCOMPARE(count("home:L(<app_name>)"), splash ? 1 : 0);
    }

    void successWithoutPasswordIsCodeFiveWithOnlyRetry()
    {
        auto splash = makeSplash();
        splash->registerVpn();
        w->engine.registerCompletion(true, QStringLiteral("user7"), QString(), std::nullopt);
        w->clock.advance(5000);
        QCOMPARE(w->alerts.shown.size(), 1);
        const AlertRequest &alert = w->alerts.shown.first();
        QCOMPARE(alert.title, QStringLiteral("Connection Error"));
        QCOMPARE(alert.message, QStringLiteral("It seems that your connection to our server is lost.\nPlease fix "
                                               "connection and try again.\nCode: 5"));
        QCOMPARE(alert.buttons.size(), 1);
        QCOMPARE(alert.buttons.first().tag, SplashVC::kRetryTag);
        QCOMPARE(w->store().getVpnCredentials().username, QString());
        w->alerts.press(SplashVC::kRetryTag);
        QCOMPARE(count("engine.registerVpn:2:0"), 2);
        // An error with a full pair is a failure as well.
        w->engine.registerCompletion(true, QStringLiteral("u"), QStringLiteral("p"), NQError(QStringLiteral("d"), 7));
        w->clock.advance(5000);
        QCOMPARE(w->alerts.shown.size(), 2);
        QCOMPARE(w->store().getVpnCredentials().username, QString());
    }

    void restartStopsAConnectedTunnelAndRestartsFiveSecondsLater()
    {
        auto splash = makeSplash();
        for (const int status : {3, 1}) {
            w->store().storeVPNStatus(status);
            const int stops = count("engine.stopVPN");
            const int restarts = m_restarts;
            splash->showAlertNoInternetWithContinueBlock([] {}, [] {});
            w->clock.advance(0);
            w->alerts.press(SplashVC::kRestartTag);
            QCOMPARE(count("engine.stopVPN"), stops + (status == 3 ? 1 : 0));
            w->clock.advance(4999);
            QCOMPARE(m_restarts, restarts);
            w->clock.advance(1);
            QCOMPARE(m_restarts, restarts + 1);
        }
    }

    void quitAsksTheApplicationUnknownResultIsAFaultAndCloseIsTheDefault()
    {
        int exits = 0;
        NQApplication app({}, [&] { ++exits; });
        auto splash = makeSplash();
        splash->showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), {}, {}, false, true);
        w->clock.advance(0);
        w->alerts.press(SplashVC::kQuitTag);
        QCOMPARE(exits, 1);

        LogCapture log;
        splash->showErrorMessage(QString(), QString());
        w->clock.advance(0);
        QVERIFY(w->alerts.shown.last().buttons.isEmpty());
        w->alerts.press(AlertPresenter::kDefaultButtonTag);
        QCOMPARE(log.osRecords().last().level, OsLog::Level::Fault);
        QCOMPARE(log.osRecords().last().text,
                 QStringLiteral("Show Error Alert: FATAL ERROR: 'Unknown option - 1000'."));

        // Closed with the window's own button: the default (first) choice, never a dead end.
        int retries = 0;
        splash->showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), {}, [&] { ++retries; });
        w->clock.advance(0);
        w->alerts.press(AlertPresenter::kDefaultButtonTag);
        QCOMPARE(retries, 1);
    }

    void appReadyOpensHomeTwoSecondsLaterAndSubscribesOnce()
    {
        auto splash = makeSplash();
        LogCapture log;
        splash->notificationsSubscribe();
        splash->notificationsSubscribe();
        QCOMPARE(log.osTexts(QStringLiteral("SplashVC")).size(), 2); // the second is refused
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        w->clock.advance(1999);
        QCOMPARE(count("home:L(<app_name>)"), 0);
        w->clock.advance(1);
        QCOMPARE(count("home:L(<app_name>)"), 1);
        // Once home replaced the screen, a later openHome changes nothing.
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        w->clock.advance(2000);
        QCOMPARE(log.count(QStringLiteral("|SplashVC| openHome.")), 2);
        QCOMPARE(count("home:L(<app_name>)"), 1);
        // A dropped screen is not called back.
        splash.reset();
        EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
        w->clock.advance(2000);
        QCOMPARE(log.count(QStringLiteral("|SplashVC| openHome.")), 2);
    }

    void openHomeWaitsWhileAnUpdateDownloads()
    {
        UpdateServer server;
        const QString resources = w->sandbox.dir.filePath(QStringLiteral("res"));
        QDir().mkpath(resources);
        UpdateServer::writeConfig(resources, server.url(QStringLiteral("/latest")), server.silentUrl());
        Platform::setInstance(std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{
            .downloadsDirectory = w->sandbox.overrides().downloadsDirectory, .resourcesDirectory = resources}));
        AppUpdateManager::sharedManager().downloadAndInstallPKG();
        QVERIFY(AppUpdateManager::sharedManager().isDownloading());
        auto splash = makeSplash();
        splash->openHome();
        w->clock.advance(100);
        QCOMPARE(count("home:L(<app_name>)"), 0);
        QCOMPARE(splash->state(), SplashVC::State::Loading);
    }
};

QTEST_GUILESS_MAIN(TestSplash)
#include "tst_splash.moc"
