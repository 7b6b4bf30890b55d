#include "UiFakes.h"
#include "support/ClockGuard.h"
#include "support/LogCapture.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "ui/HomeMainPanelVC.h"
#include "ui/UiText.h"
#include "vpn/VpnState.h"

#include <QtTest>

namespace {
QString text(const char *key)
{
    return UiText::forKey(QString::fromLatin1(key));
}
QString connectedTime(const char *time)
{
    return QStringLiteral("%1: %2").arg(text("ConnectedTime"), QString::fromLatin1(time));
}
} // namespace

class TstMainPanel : public QObject {
    Q_OBJECT

    std::unique_ptr<ClockGuard> m_clock;
    std::unique_ptr<UiFixture> m_fx;
    std::unique_ptr<HomeMainPanelVC> m_panel;

    // Display work hops to the main queue, sometimes twice; run it all.
    void flush()
    {
        for (int i = 0; i < 4; ++i)
            m_clock->advance(0);
    }
    // A loaded panel with Germany chosen and the catalogue answered.
    void loadWithCluster()
    {
        m_fx->vpn.current = country(QStringLiteral("Germany"), QStringLiteral("DE"), QStringLiteral("Europe"), 7);
        m_panel->viewDidLoad();
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        flush();
    }

private slots:
    void init()
    {
        EventBus::defaultCenter().reset();
        m_clock = std::make_unique<ClockGuard>();
        m_fx = std::make_unique<UiFixture>();
        m_panel = std::make_unique<HomeMainPanelVC>(m_fx->services);
    }
    void cleanup()
    {
        m_panel.reset();
        m_fx.reset();
        m_clock.reset();
    }

    void connectWhileConnectingStopsInsteadOfStartingAgain()
    {
        loadWithCluster();
        m_panel->clickConnect();
        flush();
        QVERIFY(m_panel->isConnecting());
        QCOMPARE(m_fx->vpn.pendingConfigs.size(), 1);
        QCOMPARE(m_fx->vpn.pendingConfigs.first().first, qint64(7));
        QCOMPARE(m_panel->display().buttonTitle, text("Cancel"));
        QCOMPARE(m_panel->display().buttonImage, QStringLiteral("button_normal3"));
        QVERIFY(m_panel->display().loadingOverlayVisible);
        QVERIFY(m_panel->display().mapAnimating);

        m_panel->clickConnect();
        QCOMPARE(m_fx->vpn.stops, 1);
        QCOMPARE(m_fx->vpn.pendingConfigs.size(), 1);
        QVERIFY(!m_panel->isConnecting());
        // The late profile answer still starts what the user asked for first; the engine's
        // stop has already run, as in the original flow.
        m_fx->vpn.pendingConfigs.takeFirst().second(QStringLiteral("client\n"), std::nullopt);
        QCOMPARE(m_fx->vpn.starts.size(), 1);
    }

    void connectedStoredStateMakesTheButtonDisconnect()
    {
        loadWithCluster();
        m_fx->storage.storeVPNStatus(VpnStateConnected);
        m_panel->clickConnect();
        QCOMPARE(m_fx->vpn.stops, 1);
        QVERIFY(m_fx->vpn.pendingConfigs.isEmpty());
    }

    void profileStartsTheTunnelAndStatesRenderTheViews()
    {
        loadWithCluster();
        m_panel->clickConnect();
        flush();
        QVERIFY(m_fx->vpn.hasConnectionStateCallback());
        m_fx->vpn.pendingConfigs.takeFirst().second(QStringLiteral("remote x\n"), std::nullopt);
        QCOMPARE(m_fx->vpn.current->ovpn, QStringLiteral("remote x\n"));
        QCOMPARE(m_fx->vpn.starts,
                 (QList<QPair<QString, QString>>{{QStringLiteral("remote x\n"), QStringLiteral("Germany")}}));

        m_fx->vpn.callback(VpnStateConnected);
        flush();
        const MainPanelDisplay &d = m_panel->display();
        QCOMPARE(d.buttonTitle, text("Disconnect"));
        QCOMPARE(d.buttonAlternateTitle, text("Disconnect"));
        QCOMPARE(d.labelState, connectedTime("00:00:00"));
        QCOMPARE(d.labelVirtualLocation, QStringLiteral("Germany"));
        QCOMPARE(d.labelVirtualIpAddress, QStringLiteral("10.0.0.7"));
        QCOMPARE(d.virtualLocationFlag, QStringLiteral("flags/de.svg"));
        QCOMPARE(d.shownMarker, std::optional<MapMarker>(MapMarker::Eu));
        QVERIFY(!d.mapAnimating);
        QVERIFY(d.buttonEnabled);

        m_fx->vpn.callback(VpnStateDisconnecting);
        flush();
        QCOMPARE(d.labelState, text("Disconnecting"));
        QCOMPARE(d.loadingOverlayLabel, text("Disconnecting"));
        QCOMPARE(d.buttonTitle, text("Cancel"));
        QCOMPARE(d.buttonImage, QStringLiteral("button_normal3"));
        QVERIFY(!d.shownMarker);

        for (int state : {0, 1, 4, 9}) {
            m_fx->vpn.callback(VpnStateConnected);
            flush();
            m_fx->vpn.callback(state);
            flush();
            QCOMPARE(d.buttonTitle, text("Connect"));
            QCOMPARE(d.buttonImage, QStringLiteral("button_normal"));
            QCOMPARE(d.labelVirtualLocation, QStringLiteral("---"));
            QVERIFY(d.virtualLocationFlag.isNull());
            QVERIFY(!d.loadingOverlayVisible);
            QCOMPARE(d.labelState, QString());
        }
    }

    void sessionTimeText_data()
    {
        QTest::addColumn<quint64>("seconds");
        QTest::addColumn<QString>("shown");
        QTest::newRow("zero") << quint64(0) << "00:00:00";
        QTest::newRow("3725 s") << quint64(3725) << "01:02:05";
        QTest::newRow("last two-digit hour") << quint64(99 * 3600 + 3599) << "99:59:59";
        QTest::newRow("100 h widens") << quint64(100 * 3600) << "100:00:00";
        QTest::newRow("minutes wrap") << quint64(3600 + 59 * 60 + 60) << "02:00:00";
    }
    void sessionTimeText()
    {
        QFETCH(quint64, seconds);
        QFETCH(QString, shown);
        QCOMPARE(HomeMainPanelVC::sessionTimeText(seconds), shown);
    }

    void sessionTimerCountsOnTheClockAndRunsDoubleAfterASecondConnect()
    {
        loadWithCluster();
        m_panel->setConnected();
        flush();
        m_clock->advance(3725 * 1000);
        QCOMPARE(m_panel->display().labelState, connectedTime("01:02:05"));

        m_panel->setDisconnected();
        flush();
        QCOMPARE(m_panel->sessionDurationSeconds(), quint64(0));
        QCOMPARE(m_panel->runningTimerCount(), 0);

        m_panel->setConnected();
        m_panel->setConnected();
        flush();
        QCOMPARE(m_panel->runningTimerCount(), 2);
        m_clock->advance(5000);
        QCOMPARE(m_panel->display().labelState, connectedTime("00:00:10"));
    }

    void markerFollowsContinentAndIso_data()
    {
        QTest::addColumn<QString>("continent");
        QTest::addColumn<QString>("iso");
        QTest::addColumn<int>("marker"); // -1: none
        QTest::newRow("US") << "North America"
                            << "CA" << int(MapMarker::US);
        QTest::newRow("Mexico") << "South America"
                                << "MX" << int(MapMarker::Mexico);
        QTest::newRow("Brazil") << "South America"
                                << "AR" << int(MapMarker::Brasile);
        QTest::newRow("Ukraine") << "Europe"
                                 << "UA" << int(MapMarker::Ukraine);
        QTest::newRow("Europe") << "Europe"
                                << "DE" << int(MapMarker::Eu);
        QTest::newRow("Africa") << "Africa"
                                << "ZA" << int(MapMarker::Africa);
        QTest::newRow("Australia") << "Australia"
                                   << "AU" << int(MapMarker::Australia);
        QTest::newRow("India") << "Asia"
                               << "IN" << int(MapMarker::India);
        QTest::newRow("Korea is East Asia") << "Asia"
                                            << "KR" << int(MapMarker::EastAsia);
        QTest::newRow("case matters") << "europe"
                                      << "UA" << -1;
        QTest::newRow("unknown continent") << "Antarctica"
                                           << "AQ" << -1;
        QTest::newRow("no continent") << ""
                                      << "UA" << -1;
    }
    void markerFollowsContinentAndIso()
    {
        QFETCH(QString, continent);
        QFETCH(QString, iso);
        QFETCH(int, marker);
        m_fx->vpn.current = country(QStringLiteral("X"), iso, continent);
        m_panel->playLocationLabel();
        const std::optional<MapMarker> shown = m_panel->display().shownMarker;
        QCOMPARE(shown ? int(*shown) : -1, marker);
    }

    void connectButtonIsEnabledExactlyWhenAClusterIsChosen()
    {
        m_panel->viewDidLoad();
        flush();
        QVERIFY(!m_panel->display().buttonEnabled);
        const NQVPNCountry ua = country(QStringLiteral("Ukraine"), QStringLiteral("UA"), QStringLiteral("Europe"));
        EventBus::defaultCenter().post(Events::NT_CLUSTERS_SELECT,
                                       {{Events::kCurrentCountry, QVariant::fromValue(ua)}});
        QCOMPARE(m_fx->vpn.current->countryName, QStringLiteral("Ukraine"));
        flush();
        QVERIFY(m_panel->display().buttonEnabled);
    }

    void realLocationRetriesTwentyTimesWhileAnotherLookupRuns()
    {
        LogCapture log;
        m_panel->refreshLocation();
        for (int attempt = 1; attempt <= HomeMainPanelVC::kLocationRetryLimit; ++attempt) {
            m_fx->location.answer(QString(), QString(), QString::fromLatin1(LocationLookup::kAlreadyCalled));
            QCOMPARE(m_panel->locationGetTry(), attempt);
            QVERIFY(m_fx->location.pending.isEmpty());
            m_clock->advance(HomeMainPanelVC::kLocationRetryDelayMs - 1);
            QVERIFY(m_fx->location.pending.isEmpty());
            m_clock->advance(1);
            QCOMPARE(m_fx->location.pending.size(), 1);
        }
        m_fx->location.answer(QString(), QString(), QString::fromLatin1(LocationLookup::kAlreadyCalled));
        QCOMPARE(m_panel->locationGetTry(), 0);
        m_clock->advance(5000);
        QVERIFY(m_fx->location.pending.isEmpty());
        QCOMPARE(log.count(QStringLiteral("|HomeMainPanelVC| hideLoadingOverlay")), 21);
    }

    void realLocationIsShownAndStored()
    {
        LogCapture log;
        m_panel->refreshLocation();
        m_fx->location.answer(QStringLiteral("203.0.113.9"), QStringLiteral("UA"));
        flush();
        QCOMPARE(m_panel->display().labelLocation, QStringLiteral("Ukraine"));
        QCOMPARE(m_panel->display().labelIpAddress, QStringLiteral("203.0.113.9"));
        QCOMPARE(m_panel->display().locationFlag, QStringLiteral("flags/ua.svg"));
        QCOMPARE(m_fx->storage.getRealIp(), QStringLiteral("203.0.113.9"));
        QCOMPARE(m_fx->storage.getCountry(), QStringLiteral("Ukraine"));

        m_panel->refreshLocation();
        m_fx->location.answer(QStringLiteral("198.51.100.1"), QStringLiteral("FR"));
        flush();
        QCOMPARE(m_panel->display().locationFlag, QStringLiteral("flags/flag_unknown.svg"));
        QVERIFY(log.lines().contains(QStringLiteral("|HomeMainPanelVC| NO IMAGE FOR COUNTRY: FR")));

        // The country's name in the user's language.
        const QLocale saved;
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        m_panel->refreshLocation();
        m_fx->location.answer(QStringLiteral("198.51.100.2"), QStringLiteral("DE"));
        flush();
        QLocale::setDefault(saved);
        QCOMPARE(m_panel->display().labelLocation, QStringLiteral("Deutschland"));
    }

    void storedLocationShowsAtStartAndVirtualLocationFollowsTheStoredState()
    {
        m_fx->storage.storeCountry(QStringLiteral("Finland"));
        m_fx->storage.storeRealIp(QStringLiteral("192.0.2.4"));
        m_fx->storage.storeVPNStatus(VpnStateConnected);
        m_fx->storage.storeVirtualIP(QStringLiteral("10.8.0.1"));
        m_fx->storage.storeVirtualCountry(QStringLiteral("Ukraine"));
        m_fx->storage.storeVirtualCountryCode(QStringLiteral("UA"));
        m_panel->viewDidLoad();
        flush();
        QCOMPARE(m_panel->display().labelLocation, QStringLiteral("Finland"));
        QCOMPARE(m_panel->display().labelIpAddress, QStringLiteral("192.0.2.4"));
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        flush();
        QCOMPARE(m_panel->display().labelVirtualLocation, QStringLiteral("Ukraine"));
        QCOMPARE(m_panel->display().labelVirtualIpAddress, QStringLiteral("10.8.0.1"));
        QCOMPARE(m_panel->display().virtualLocationFlag, QStringLiteral("flags/ua.svg"));

        m_fx->storage.storeVPNStatus(VpnStateDisconnected);
        m_panel->initVPN();
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        QCOMPARE(m_panel->display().labelVirtualLocation, QStringLiteral("- - -"));
        QCOMPARE(m_panel->display().virtualLocationFlag, QStringLiteral("flags/flag_unknown.svg"));
    }

    void failuresShowTheirDialogsAndOnlyTheProfileOneRetries()
    {
        m_fx->alerts.answer = HomeMainPanelVC::kAlertFirstButton; // the user presses Retry
        loadWithCluster();
        m_panel->initVPN();
        m_fx->vpn.pendingCountries.takeFirst()(NQError(QStringLiteral("d"), 1));
        flush();
        QCOMPARE(m_fx->alerts.shown.size(), 1);
        QCOMPARE(m_fx->alerts.shown[0].title, QStringLiteral("Error"));
        QCOMPARE(m_fx->alerts.shown[0].message, text("vpn_setup_failed_check_internet"));
        QVERIFY(m_fx->vpn.pendingCountries.isEmpty());

        m_panel->clickConnect();
        flush();
        m_fx->vpn.pendingConfigs.takeFirst().second(QString(), NQError(QStringLiteral("d"), 2));
        flush();
        QCOMPARE(m_fx->alerts.shown.size(), 2);
        QCOMPARE(m_fx->alerts.shown[1].message, text("installing_vpn_configuration_failed"));
        QCOMPARE(m_fx->alerts.shown[1].buttons.size(), 2);
        QCOMPARE(m_fx->vpn.pendingConfigs.size(), 1); // Retry asked again
        QVERIFY(m_fx->vpn.starts.isEmpty());

        m_fx->alerts.answer = HomeMainPanelVC::kAlertFirstButton + 1; // Cancel
        m_fx->vpn.pendingConfigs.takeFirst().second(QString(), NQError(QStringLiteral("d"), 2));
        flush();
        QVERIFY(m_fx->vpn.pendingConfigs.isEmpty());
        QCOMPARE(m_panel->display().buttonTitle, text("Cancel")); // stays Connecting
    }

    void overlayAndPopupsPostTheirEvents()
    {
        m_panel->viewDidLoad();
        flush();
        QStringList posted;
        auto &bus = EventBus::defaultCenter();
        for (auto name : {Events::NOTIFICATION_LOADING_START, Events::NOTIFICATION_LOADING_END, Events::NT_HIDE_ABOUT,
                          Events::NT_HIDE_CONTEXT, Events::NT_HIDE_UPDATE})
            bus.addObserver(this, name, [&posted](const Event &e) { posted << e.name; });
        m_panel->showLoadingOverlay();
        flush();
        QVERIFY(m_panel->display().loadingOverlayVisible);
        m_panel->hideLoadingOverlay();
        flush();
        QVERIFY(!m_panel->display().loadingOverlayVisible);
        m_panel->clickInfo();
        QVERIFY(m_panel->display().contextMenuVisible);
        m_panel->clickSettings();
        flush();
        QVERIFY(!m_panel->display().contextMenuVisible);
        QCOMPARE(posted, (QStringList{"NOTIFICATION_LOADING_START", "NOTIFICATION_LOADING_END", "NT_HIDE_ABOUT",
                                      "NT_HIDE_CONTEXT", "NT_HIDE_UPDATE"}));
        bus.removeObserver(this);
    }

    // Said from the engine's word at load and at every change, whatever the tunnel state.
    void trafficBlockedLineFollowsTheEngine()
    {
        m_fx->vpn.blocked = true;
        m_panel->viewDidLoad();
        flush();
        QCOMPARE(m_panel->display().labelTrafficBlocked, text("Traffic outside the VPN is blocked"));
        for (const bool blocked : {false, true}) {
            m_fx->vpn.blockedCallback(blocked);
            flush();
            QCOMPARE(m_panel->display().labelTrafficBlocked.isEmpty(), !blocked);
        }
    }
};

QTEST_GUILESS_MAIN(TstMainPanel)
#include "tst_main_panel.moc"
