// The screens' rules without a display: the connection panel, the server list, the settings,
// the update panel, and the keeper that brings a fallen tunnel back.
#include "UiFakes.h"
#include "support/ClockGuard.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/LocalString.h"
#include "ui/ClustersVC.h"
#include "ui/ContextMenuView.h"
#include "ui/HomeMainPanelVC.h"
#include "ui/SettingsVC.h"
#include "ui/TunnelKeeper.h"
#include "ui/UiText.h"
#include "ui/UpdateVC.h"
#include "vpn/VpnState.h"

#include <QtTest>

namespace {
QString text(const char *key)
{
    return UiText::forKey(QString::fromLatin1(key));
}
QVariantMap catalogue(const QList<NQVPNCountry> &countries)
{
    return {{QString::fromLatin1(Events::NQVpnKeyClustersArray), QVariant::fromValue(countries)}};
}
} // namespace

class TstScreens : public QObject {
    Q_OBJECT

    std::unique_ptr<ClockGuard> m_clock;
    std::unique_ptr<UiFixture> m_fx;
    std::unique_ptr<HomeMainPanelVC> m_panel;
    std::unique_ptr<ClustersVC> m_clusters;
    std::unique_ptr<SettingsVC> m_settings;
    QStringList m_events;    // watched events in order; a chosen cluster as its name
    QStringList m_announced; // clusters chosen (NT_CLUSTERS_SELECT)

    // Display work hops to the main queue, sometimes twice; run it all.
    void flush()
    {
        for (int i = 0; i < 4; ++i)
            m_clock->advance(0);
    }
    void watch(std::initializer_list<const char *> names)
    {
        for (const char *name : names)
            EventBus::defaultCenter().addObserver(this, name, [this](const Event &e) { m_events << e.name; });
    }
    HomeMainPanelVC &panel()
    {
        if (!m_panel)
            m_panel = std::make_unique<HomeMainPanelVC>(m_fx->services);
        return *m_panel;
    }
    const MainPanelDisplay &display() { return panel().display(); }
    ClustersVC &clusters()
    {
        if (!m_clusters)
            m_clusters = std::make_unique<ClustersVC>(m_fx->services);
        return *m_clusters;
    }
    QList<bool> flags(bool NQVPNCountry::*flag)
    {
        QList<bool> out;
        for (const ClusterRecord &r : clusters().tableSourceAllLocations().tableData)
            out << (*r).*flag;
        return out;
    }
    // The settings screen shown in English, counting the restarts it asks for.
    SettingsVC &settings()
    {
        if (!m_settings) {
            LocalString::setOverridesForTesting({QStringList{QStringLiteral("en")}, std::nullopt, std::nullopt});
            m_fx->storage.storeAppLanguageCode(QStringLiteral("en"));
            m_settings = std::make_unique<SettingsVC>(m_fx->services);
            watch({Events::APP_RESTART});
            m_settings->viewWillAppear();
        }
        return *m_settings;
    }

private slots:
    void init()
    {
        EventBus::defaultCenter().reset();
        m_clock = std::make_unique<ClockGuard>();
        m_fx = std::make_unique<UiFixture>();
        m_events.clear();
        m_announced.clear();
        EventBus::defaultCenter().addObserver(this, Events::NT_CLUSTERS_SELECT, [this](const Event &e) {
            m_announced << e.userInfo.value(Events::kCurrentCountry).value<NQVPNCountry>().countryName;
        });
    }
    void cleanup()
    {
        EventBus::defaultCenter().removeObserver(this);
        m_settings.reset();
        m_clusters.reset();
        m_panel.reset();
        m_fx.reset();
        m_clock.reset();
        LocalString::setOverridesForTesting({});
    }

    // --- The connection panel

    // With no server list on screen: the last connected cluster, else the default, else the first.
    void connectsAutomaticallyToTheLastOrDefaultCluster()
    {
        for (const auto &[last, withDefault, expected] :
             {std::tuple{"C", true, 3}, std::tuple{"Gone", true, 2}, std::tuple{"", false, 1}}) {
            cleanup(), init();
            m_fx->vpn.countries = {eu("A", 1), eu("B", 2, withDefault), eu("C", 3)};
            m_fx->storage.storeAppAutoconnectEnabled(true);
            m_fx->storage.storeLastConnectedCluster(QString::fromLatin1(last));
            panel().viewDidLoad();
            m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
            flush();
            QCOMPARE(m_fx->vpn.pendingConfigs.isEmpty() ? 0 : m_fx->vpn.pendingConfigs.first().first, qint64(expected));
        }
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
              Case{"Asia", "KR", int(MapMarker::EastAsia)}, Case{"europe", "UA", -1}}) { // case matters
            m_fx->vpn.current =
                country(QStringLiteral("X"), QString::fromLatin1(c.iso), QString::fromLatin1(c.continent));
            panel().playLocationLabel();
            const std::optional<MapMarker> shown = display().shownMarker;
            QVERIFY2((shown ? int(*shown) : -1) == c.marker, c.iso);
        }
    }

    void storedLocationsAtStartBlockedLineFromTheEngineThenTheRealLocationLookedUp()
    {
        m_fx->storage.storeCountry(QStringLiteral("Finland"));
        m_fx->storage.storeRealIp(QStringLiteral("192.0.2.4"));
        m_fx->storage.storeVPNStatus(VpnStateConnected);
        m_fx->storage.storeVirtualIP(QStringLiteral("10.8.0.1"));
        m_fx->storage.storeVirtualCountry(QStringLiteral("Ukraine"));
        m_fx->storage.storeVirtualCountryCode(QStringLiteral("UA"));
        m_fx->vpn.blocked = true;
        panel().viewDidLoad();
        flush();
        QCOMPARE(display().labelLocation, QStringLiteral("Finland"));
        QCOMPARE(display().labelIpAddress, QStringLiteral("192.0.2.4"));
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        flush();
        QCOMPARE(QStringList(
                     {display().labelVirtualLocation, display().labelVirtualIpAddress, display().virtualLocationFlag}),
                 (QStringList{"Ukraine", "10.8.0.1", "flags/ua.svg"}));

        m_fx->storage.storeVPNStatus(VpnStateDisconnected);
        panel().initVPN();
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        QCOMPARE(display().labelVirtualLocation, QStringLiteral("- - -"));
        QCOMPARE(display().virtualLocationFlag, QStringLiteral("flags/flag_unknown.svg"));

        // The blocked-traffic line is said from the engine's word at load and at every change,
        // whatever the tunnel state.
        QCOMPARE(display().labelTrafficBlocked, text("Traffic outside the VPN is blocked"));
        for (const bool blocked : {false, true}) {
            m_fx->vpn.blockedCallback(blocked);
            flush();
            QCOMPARE(display().labelTrafficBlocked.isEmpty(), !blocked);
        }

        // The lookup the load started is retried twenty times while another runs; once answered,
        // the location is shown and stored.
        const auto busy = [this] {
            m_fx->location.answer(QString(), QString(), QString::fromLatin1(LocationLookup::kAlreadyCalled));
        };
        for (int attempt = 1; attempt <= HomeMainPanelVC::kLocationRetryLimit; ++attempt) {
            busy();
            m_clock->advance(HomeMainPanelVC::kLocationRetryDelayMs - 1);
            QVERIFY(m_fx->location.pending.isEmpty());
            m_clock->advance(1);
            QCOMPARE(m_fx->location.pending.size(), 1);
        }
        busy();
        QCOMPARE(panel().locationGetTry(), 0);

        const auto lookUp = [this](const char *ip, const char *code) {
            panel().refreshLocation();
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

    void failuresShowTheirDialogsOnlyTheProfileOneRetriesThenSessionTime()
    {
        const QList<QPair<quint64, QString>> cases{{3725, "01:02:05"}, {100 * 3600, "100:00:00"}}; // the hours widen
        for (const auto &[seconds, shown] : cases)
            QCOMPARE(HomeMainPanelVC::sessionTimeText(seconds), shown);

        m_fx->alerts.answer = HomeMainPanelVC::kAlertFirstButton; // the user presses Retry
        m_fx->vpn.current = country(QStringLiteral("Germany"), QStringLiteral("DE"), QStringLiteral("Europe"), 7);
        panel().viewDidLoad();
        m_fx->vpn.pendingCountries.takeFirst()(std::nullopt);
        flush();
        panel().initVPN();
        m_fx->vpn.pendingCountries.takeFirst()(NQError(QStringLiteral("d"), 1));
        flush();
        QCOMPARE(m_fx->alerts.shown[0].title, QStringLiteral("Error"));
        QCOMPARE(m_fx->alerts.shown[0].message, text("vpn_setup_failed_check_internet"));

        panel().clickConnect();
        flush();
        m_fx->vpn.pendingConfigs.takeFirst().second(QString(), NQError(QStringLiteral("d"), 2));
        flush();
        QCOMPARE(m_fx->alerts.shown.size(), 2);
        QCOMPARE(m_fx->alerts.shown[1].message, text("installing_vpn_configuration_failed"));
        QCOMPARE(m_fx->vpn.pendingConfigs.size(), 1); // Retry asked again

        m_fx->alerts.answer = HomeMainPanelVC::kAlertFirstButton + 1; // Cancel
        m_fx->vpn.pendingConfigs.takeFirst().second(QString(), NQError(QStringLiteral("d"), 2));
        flush();
        QCOMPARE(display().buttonTitle, text("Cancel")); // stays Connecting
        // Pressed again, it stops and is no longer connecting.
        panel().clickConnect();
        QCOMPARE(m_fx->vpn.stops, 1);
        QVERIFY(!panel().isConnecting());

        // Counted on the clock; a second connect runs a second timer, so the time runs double.
        panel().setConnected();
        flush();
        m_clock->advance(3725 * 1000);
        panel().setDisconnected();
        panel().setConnected();
        panel().setConnected();
        flush();
        m_clock->advance(5000);
        QCOMPARE(display().labelState, QStringLiteral("%1: 00:00:10").arg(text("ConnectedTime")));
    }

    // --- The server list

    // Damaged marks are replaced by an empty list. Marks are carried over by name; the first of
    // two equal names takes them.
    void favouritesDamagedOrMissingFromTheCatalogue()
    {
        const QString key = QString::fromLatin1(ClustersVC::kClusterItemsKey);
        m_fx->storage.setValue(key, QByteArray("not an archive"));
        clusters().loadStoredClustersItems();
        const auto stored = m_fx->storage.arrayForKey<NQVPNCountry>(key);
        QVERIFY(stored.has_value());
        QVERIFY(stored->isEmpty());

        NQVPNCountry atlantis = eu("Atlantis"), germany = eu("Germany");
        atlantis.clusterFavourited = germany.clusterFavourited = true;
        QVERIFY(m_fx->storage.setArray(QList<NQVPNCountry>{atlantis, germany}, key));
        m_fx->vpn.countries = {eu("France"), eu("Germany", 1), eu("Germany", 2)};
        clusters().viewDidLoad();
        QStringList favourites;
        for (const ClusterRecord &r : clusters().tableSourceFavourites().tableData)
            favourites << r->countryName;
        QCOMPARE(favourites, (QStringList{"Atlantis", "Germany"}));
        QCOMPARE(flags(&NQVPNCountry::clusterFavourited), (QList<bool>{false, true, false}));

        EventBus::defaultCenter().post(Events::NOTIFICATION_CLUSTERS_LOADED,
                                       catalogue({eu("Germany", 3), eu("Spain", 4)}));
        QCOMPARE(flags(&NQVPNCountry::clusterFavourited), (QList<bool>{true, false}));

        EventBus::defaultCenter().post(Events::NOTIFICATION_LOADING_START);
        QVERIFY(clusters().loadingOverlayVisible());
        EventBus::defaultCenter().post(Events::NOTIFICATION_LOADING_END);
        QVERIFY(!clusters().loadingOverlayVisible());
    }

    void defaultClusterThenFirstRecordThenNothing()
    {
        clusters().viewDidLoad();
        auto &bus = EventBus::defaultCenter();
        bus.post(Events::NOTIFICATION_CLUSTERS_LOADED, catalogue({eu("A", 1), eu("B", 2, true), eu("C", 3)}));
        QCOMPARE(clusters().selectedCountry()->countryName, QStringLiteral("B"));
        QVERIFY(m_announced.contains(QStringLiteral("B")));
        QCOMPARE(flags(&NQVPNCountry::clusterSelected), (QList<bool>{false, true, false}));
        QCOMPARE(clusters().tableSourceAllLocations().selectedRow(), 1);
        // Shown again, the list announces it again: the engine forgets it when a tunnel stops.
        m_announced.clear();
        clusters().viewDidAppear();
        QCOMPARE(m_announced, QStringList{"B"});

        // The choice survives a new catalogue by name, even without a default.
        clusters().clickRow(2);
        bus.post(Events::NOTIFICATION_CLUSTERS_LOADED, catalogue({eu("C", 3), eu("D", 4)}));
        QCOMPARE(clusters().selectedCountry()->countryName, QStringLiteral("C"));
        QCOMPARE(clusters().tableSourceAllLocations().selectedRow(), 0);

        ClustersVC fresh(m_fx->services);
        fresh.viewDidLoad();
        bus.removeObserver(m_clusters.get());
        bus.post(Events::NOTIFICATION_CLUSTERS_LOADED, catalogue({eu("E", 5), eu("F", 6)}));
        QCOMPARE(fresh.selectedCountry()->countryName, QStringLiteral("E"));

        ClustersVC empty(m_fx->services);
        empty.viewDidLoad();
        bus.removeObserver(&fresh);
        m_announced.clear();
        bus.post(Events::NOTIFICATION_CLUSTERS_LOADED, catalogue({}));
        QVERIFY(!empty.selectedCountry());
        QVERIFY(m_announced.isEmpty());
    }

    // --- Settings

    // Apply takes the login item off again, as it put it on. The kill switch is saved at once,
    // both ways, and never waits for Apply. The ad blocker follows the extension, else turns
    // itself off and opens Chrome.
    void loginItemKillSwitchReconnectPromptAndAdBlocker()
    {
        for (const bool on : {true, false}) {
            settings().clickRunStartup(on);
            settings().clickApply();
            settings().clickKillSwitch(on);
            QCOMPARE(m_fx->vpn.killSwitch, on);
            QVERIFY(!settings().buttonApplyEnabled());
        }
        QCOMPARE(m_fx->loginItems.calls, (QList<bool>{true, false}));

        // A language chosen: the reconnect prompt applies it once it closes.
        EventBus::defaultCenter().post(Events::LANGUAGE_SELECTED, {{QStringLiteral("de"), QStringLiteral("Deutsch")}});
        flush();
        settings().showNeedReconnect();
        QCOMPARE(m_fx->alerts.shown.value(0).message, QStringLiteral("Please reconect to apply changes."));
        flush();
        QCOMPARE(m_events, QStringList{"APP_RESTART"});

        settings().clickAdBlocker(true);
        flush();
        settings().clickAdBlocker(false);
        flush();
        QCOMPARE(m_fx->extension.sent, (QStringList{"ON", "OFF"}));
        QVERIFY(!settings().switchAdBlocking.on);

        // While shown, the switch follows the stored flag every two seconds.
        m_fx->storage.storeAdsBlockerEnabled(true);
        m_clock->advance(SettingsVC::kAdBlockerRefreshMs);
        settings().viewDidDisappear();
        m_fx->storage.storeAdsBlockerEnabled(false);
        m_clock->advance(SettingsVC::kAdBlockerRefreshMs * 2);
        QVERIFY(settings().switchAdBlocking.on);

        m_fx->storage.setLabelConfigBrowserChromeLink(QStringLiteral("https://store.example/detail/quellon/x"));
        m_fx->extension.chrome = false;
        settings().clickAdBlocker(true);
        flush();
        QVERIFY(!settings().switchAdBlocking.on);
        QCOMPARE(m_fx->chrome.launches, QList<QStringList>{{QStringLiteral("https://store.example/detail/quellon/x")}});

        m_fx->extension.chrome = true;
        m_fx->extension.extension = false;
        m_fx->chrome.failWith = NQError(QStringLiteral("d"), 2, {{NQError::kLocalizedDescriptionKey, "no chrome"}});
        settings().clickAdBlocker(true);
        QCOMPARE(m_fx->alerts.shown.size(), 2);
        QCOMPARE(m_fx->alerts.shown[1].title, QStringLiteral("Cannot open Google Chrome"));
        QCOMPARE(m_fx->alerts.shown[1].message, QStringLiteral("no chrome"));
    }

    // The journeys see the overlays close; only the events show the menu closing itself too.
    void menuEntryClosesTheOverlaysThenItself()
    {
        watch({Events::NT_HIDE_ABOUT, Events::NT_HIDE_CONTEXT, Events::NT_HIDE_UPDATE});
        ContextMenuView(m_fx->urls).clickSupport();
        QCOMPARE(m_events, (QStringList{"NT_HIDE_ABOUT", "NT_HIDE_CONTEXT", "NT_HIDE_UPDATE", "NT_HIDE_CONTEXT"}));
    }

    // --- The update panel

    void updatePanelViewsAndUpdateWhileConnected()
    {
        UpdateVC update(m_fx->services);
        update.viewDidLoad();
        m_fx->updates.checks.takeFirst()(false);

        // A failed installation offers the update again two seconds later.
        EventBus::defaultCenter().post(Events::NOTIFICATION_APP_READY);
        m_clock->advance(UpdateVC::kAppReadyDelayMs - 1);
        QCOMPARE(update.view(), UpdateVC::View::NoUpdate);
        m_clock->advance(1);
        QCOMPARE(update.view(), UpdateVC::View::UpdateFound);

        m_fx->storage.storeVPNStatus(VpnStateConnected);
        update.clickYes();
        QCOMPARE(m_fx->vpn.stops, 1);
        QCOMPARE(m_fx->updates.downloads, 0); // on the main queue, after the stop
        flush();
        QCOMPARE(m_fx->updates.downloads, 1);
    }

    // --- The tunnel keeper

    // Pauses double up to a minute; route changes are waited out; a fall gone unnoticed is found
    // on waking.
    void keeperPausesWaitsOutNetworkChangesAndChecksOnWaking()
    {
        int connects = 0;
        int checks = 0;
        bool up = true;
        TunnelKeeper keeper(
            {.connect = [&] { ++connects; }, .tunnelUp = [&] { return ++checks, up; }, .changed = [] {}});
        keeper.userConnected();
        keeper.stateChanged(VpnStateConnected);
        // A burst of route changes: one check once they settle, and a live tunnel is left alone.
        for (int i = 0; i < 5; ++i) {
            keeper.networkChanged();
            m_clock->advance(100);
        }
        m_clock->advance(TunnelKeeper::kNetworkSettleMs);
        QCOMPARE(checks, 1);
        const QList<int> pauses{1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000};
        for (int attempt = 1; attempt <= pauses.size(); ++attempt) {
            keeper.stateChanged(VpnStateDisconnected); // the tunnel, then each attempt, falls
            m_clock->advance(pauses[attempt - 1] - 1);
            QCOMPARE(connects, attempt - 1);
            m_clock->advance(1);
            QCOMPARE(connects, attempt);
        }
        QCOMPARE(TunnelKeeper::delayBeforeAttempt(100000), TunnelKeeper::kMaxDelayMs);
        // Waiting a minute for the next attempt when the network comes back: tried once it settles.
        keeper.stateChanged(VpnStateDisconnected);
        keeper.networkChanged();
        m_clock->advance(TunnelKeeper::kNetworkSettleMs);
        QCOMPARE(connects, pauses.size() + 1);
        // Gone unnoticed: found on waking.
        keeper.stateChanged(VpnStateConnected);
        up = false;
        keeper.resumed();
        QCOMPARE(keeper.attempt(), 1);
    }
};

QTEST_GUILESS_MAIN(TstScreens)
#include "tst_screens.moc"
