#include "UiFakes.h"
#include "support/ClockGuard.h"

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
// The button and the connection line as one text: "title|image|state".
QString button(const MainPanelDisplay &d)
{
    return d.buttonTitle + QLatin1Char('|') + d.buttonImage + QLatin1Char('|') + d.labelState;
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
    const MainPanelDisplay &display() const { return m_panel->display(); }
    // A loaded panel with Germany chosen and the catalogue answered.
    void loadWithCluster()
    {
        m_fx->vpn.current = country(QStringLiteral("Germany"), QStringLiteral("DE"), QStringLiteral("Europe"), 7);
        m_panel->viewDidLoad();
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        flush();
    }
    void state(int state)
    {
        m_fx->vpn.callback(state);
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

    void connectWhileConnectingOrConnectedStops()
    {
        loadWithCluster();
        m_panel->clickConnect();
        flush();
        QVERIFY(m_panel->isConnecting());
        QCOMPARE(m_fx->vpn.pendingConfigs.size(), 1);
        QCOMPARE(m_fx->vpn.pendingConfigs.first().first, qint64(7));
        QCOMPARE(button(display()), text("Cancel") + QStringLiteral("|button_normal3|"));
        QVERIFY(display().loadingOverlayVisible && display().mapAnimating);
        QVERIFY(m_fx->vpn.holdBlock); // a wanted tunnel keeps a block between client runs

        m_panel->clickConnect();
        QCOMPARE(m_fx->vpn.stops, 1);
        QVERIFY(!m_fx->vpn.holdBlock);
        QCOMPARE(m_fx->vpn.pendingConfigs.size(), 1);
        QVERIFY(!m_panel->isConnecting());
        // The late profile answer still starts what the user asked for first.
        m_fx->vpn.pendingConfigs.takeFirst().second(QStringLiteral("client\n"), std::nullopt);
        QCOMPARE(m_fx->vpn.starts.size(), 1);

        // Connected as stored: the button disconnects and asks for no profile.
        m_fx->storage.storeVPNStatus(VpnStateConnected);
        m_panel->clickConnect();
        QCOMPARE(m_fx->vpn.stops, 2);
        QVERIFY(m_fx->vpn.pendingConfigs.isEmpty());
    }

    void profileStartsTheTunnelAndStatesRenderTheViews()
    {
        loadWithCluster();
        m_panel->clickConnect();
        flush();
        m_fx->vpn.pendingConfigs.takeFirst().second(QStringLiteral("remote x\n"), std::nullopt);
        QCOMPARE(m_fx->vpn.current->ovpn, QStringLiteral("remote x\n"));
        QCOMPARE(m_fx->vpn.starts,
                 (QList<QPair<QString, QString>>{{QStringLiteral("remote x\n"), QStringLiteral("Germany")}}));

        state(VpnStateConnected);
        const MainPanelDisplay &d = display();
        QCOMPARE(button(d), text("Disconnect") + QStringLiteral("|button_normal3|") + connectedTime("00:00:00"));
        QCOMPARE(d.buttonAlternateTitle, text("Disconnect"));
        QCOMPARE(QStringList({d.labelVirtualLocation, d.labelVirtualIpAddress, d.virtualLocationFlag}),
                 (QStringList{"Germany", "10.0.0.7", "flags/de.svg"}));
        QCOMPARE(d.shownMarker, std::optional<MapMarker>(MapMarker::Eu));
        QVERIFY(!d.mapAnimating && d.buttonEnabled);

        state(VpnStateDisconnecting);
        QCOMPARE(button(d), text("Cancel") + QStringLiteral("|button_normal3|") + text("Disconnecting"));
        QCOMPARE(d.loadingOverlayLabel, text("Disconnecting"));
        QVERIFY(!d.shownMarker);

        for (int other : {0, 1, 4, 9}) {
            state(VpnStateConnected);
            state(other);
            QCOMPARE(button(d), text("Connect") + QStringLiteral("|button_normal|"));
            QCOMPARE(d.labelVirtualLocation, QStringLiteral("---"));
            QVERIFY(d.virtualLocationFlag.isNull());
            QVERIFY(!d.loadingOverlayVisible);
        }
    }

    void sessionTimeText()
    {
        const QList<QPair<quint64, QString>> cases{{0, "00:00:00"},
                                                   {3725, "01:02:05"},
                                                   {99 * 3600 + 3599, "99:59:59"},
                                                   {100 * 3600, "100:00:00"}, // widens
                                                   {3600 + 59 * 60 + 60, "02:00:00"}};
        for (const auto &[seconds, shown] : cases)
            QCOMPARE(HomeMainPanelVC::sessionTimeText(seconds), shown);
    }

    void sessionTimerCountsOnTheClockAndRunsDoubleAfterASecondConnect()
    {
        loadWithCluster();
        m_panel->setConnected();
        flush();
        m_clock->advance(3725 * 1000);
        QCOMPARE(display().labelState, connectedTime("01:02:05"));

        m_panel->setDisconnected();
        flush();
        QCOMPARE(m_panel->sessionDurationSeconds(), quint64(0));
        QCOMPARE(m_panel->runningTimerCount(), 0);

        m_panel->setConnected();
        m_panel->setConnected();
        flush();
        QCOMPARE(m_panel->runningTimerCount(), 2);
        m_clock->advance(5000);
        QCOMPARE(display().labelState, connectedTime("00:00:10"));
    }

    void markerFollowsContinentAndIso()
    {
        struct Case {
            const char *continent, *iso;
            int marker; // -1: none
        };
        for (const Case c :
             {Case{"North America", "CA", int(MapMarker::US)}, Case{"South America", "MX", int(MapMarker::Mexico)},
              Case{"South America", "AR", int(MapMarker::Brasile)}, Case{"Europe", "UA", int(MapMarker::Ukraine)},
              Case{"Europe", "DE", int(MapMarker::Eu)}, Case{"Africa", "ZA", int(MapMarker::Africa)},
              Case{"Australia", "AU", int(MapMarker::Australia)}, Case{"Asia", "IN", int(MapMarker::India)},
              Case{"Asia", "KR", int(MapMarker::EastAsia)}, Case{"europe", "UA", -1}, // case matters
              Case{"Antarctica", "AQ", -1}, Case{"", "UA", -1}}) {
            m_fx->vpn.current =
                country(QStringLiteral("X"), QString::fromLatin1(c.iso), QString::fromLatin1(c.continent));
            m_panel->playLocationLabel();
            const std::optional<MapMarker> shown = display().shownMarker;
            QVERIFY2((shown ? int(*shown) : -1) == c.marker, c.iso);
        }
    }

    void connectButtonIsEnabledExactlyWhenAClusterIsChosen()
    {
        m_panel->viewDidLoad();
        flush();
        QVERIFY(!display().buttonEnabled);
        const NQVPNCountry ua = country(QStringLiteral("Ukraine"), QStringLiteral("UA"), QStringLiteral("Europe"));
        EventBus::defaultCenter().post(Events::NT_CLUSTERS_SELECT,
                                       {{Events::kCurrentCountry, QVariant::fromValue(ua)}});
        QCOMPARE(m_fx->vpn.current->countryName, QStringLiteral("Ukraine"));
        flush();
        QVERIFY(display().buttonEnabled);
    }

    void realLocationRetriesTwentyTimesWhileAnotherLookupRuns()
    {
        m_panel->refreshLocation();
        const auto busy = [this] {
            m_fx->location.answer(QString(), QString(), QString::fromLatin1(LocationLookup::kAlreadyCalled));
        };
        for (int attempt = 1; attempt <= HomeMainPanelVC::kLocationRetryLimit; ++attempt) {
            busy();
            QCOMPARE(m_panel->locationGetTry(), attempt);
            m_clock->advance(HomeMainPanelVC::kLocationRetryDelayMs - 1);
            QVERIFY(m_fx->location.pending.isEmpty());
            m_clock->advance(1);
            QCOMPARE(m_fx->location.pending.size(), 1);
        }
        busy();
        QCOMPARE(m_panel->locationGetTry(), 0);
        m_clock->advance(5000);
        QVERIFY(m_fx->location.pending.isEmpty());
    }

    void realLocationIsShownAndStored()
    {
        const auto lookUp = [this](const char *ip, const char *code) {
            m_panel->refreshLocation();
            m_fx->location.answer(QString::fromLatin1(ip), QString::fromLatin1(code));
            flush();
            return QStringList{display().labelLocation, display().labelIpAddress, display().locationFlag};
        };
        QCOMPARE(lookUp("203.0.113.9", "UA"), (QStringList{"Ukraine", "203.0.113.9", "flags/ua.svg"}));
        QCOMPARE(m_fx->storage.getRealIp(), QStringLiteral("203.0.113.9"));
        QCOMPARE(m_fx->storage.getCountry(), QStringLiteral("Ukraine"));
        QCOMPARE(lookUp("198.51.100.1", "FR").last(), QStringLiteral("flags/flag_unknown.svg"));
        // The country's name in the user's language.
        const QLocale saved;
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        const QString german = lookUp("198.51.100.2", "DE").first();
        QLocale::setDefault(saved);
        QCOMPARE(german, QStringLiteral("Deutschland"));
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
        QCOMPARE(display().labelLocation, QStringLiteral("Finland"));
        QCOMPARE(display().labelIpAddress, QStringLiteral("192.0.2.4"));
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        flush();
        QCOMPARE(QStringList(
                     {display().labelVirtualLocation, display().labelVirtualIpAddress, display().virtualLocationFlag}),
                 (QStringList{"Ukraine", "10.8.0.1", "flags/ua.svg"}));

        m_fx->storage.storeVPNStatus(VpnStateDisconnected);
        m_panel->initVPN();
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        QCOMPARE(display().labelVirtualLocation, QStringLiteral("- - -"));
        QCOMPARE(display().virtualLocationFlag, QStringLiteral("flags/flag_unknown.svg"));
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
        QCOMPARE(display().buttonTitle, text("Cancel")); // stays Connecting
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
        QVERIFY(display().loadingOverlayVisible);
        m_panel->hideLoadingOverlay();
        flush();
        QVERIFY(!display().loadingOverlayVisible);
        m_panel->clickInfo();
        QVERIFY(display().contextMenuVisible);
        m_panel->clickSettings();
        flush();
        QVERIFY(!display().contextMenuVisible);
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
