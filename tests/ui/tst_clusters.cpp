#include "UiFakes.h"
#include "support/ClockGuard.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "ui/ClustersVC.h"

#include <QtTest>

namespace {

QStringList names(const QList<ClusterRecord> &records)
{
    QStringList out;
    for (const ClusterRecord &r : records)
        out << r->countryName;
    return out;
}

NQVPNCountry favourite(const char *name)
{
    NQVPNCountry c = eu(name);
    c.clusterFavourited = true;
    return c;
}

QVariantMap catalogue(const QList<NQVPNCountry> &countries)
{
    return {{QString::fromLatin1(Events::NQVpnKeyClustersArray), QVariant::fromValue(countries)}};
}

} // namespace

class TstClusters : public QObject {
    Q_OBJECT

    std::unique_ptr<ClockGuard> m_clock;
    std::unique_ptr<UiFixture> m_fx;
    std::unique_ptr<ClustersVC> m_vc;
    QStringList m_announced; // names carried by NT_CLUSTERS_SELECT

    void storeFavourites(const QList<NQVPNCountry> &list)
    {
        QVERIFY(m_fx->storage.setArray(list, QString::fromLatin1(ClustersVC::kClusterItemsKey)));
    }
    QStringList storedFavourites() const
    {
        const auto list = m_fx->storage.arrayForKey<NQVPNCountry>(QString::fromLatin1(ClustersVC::kClusterItemsKey));
        QStringList out;
        for (const NQVPNCountry &c : list.value_or(QList<NQVPNCountry>()))
            out << c.countryName;
        return out;
    }
    QList<bool> favouriteFlags() { return flags(&NQVPNCountry::clusterFavourited); }
    QList<bool> selectedFlags() { return flags(&NQVPNCountry::clusterSelected); }
    QList<bool> flags(bool NQVPNCountry::*flag)
    {
        QList<bool> out;
        for (const ClusterRecord &r : m_vc->tableSourceAllLocations().tableData)
            out << (*r).*flag;
        return out;
    }

private slots:
    void init()
    {
        EventBus::defaultCenter().reset();
        m_clock = std::make_unique<ClockGuard>();
        m_fx = std::make_unique<UiFixture>();
        m_vc = std::make_unique<ClustersVC>(m_fx->services);
        m_announced.clear();
        EventBus::defaultCenter().addObserver(this, Events::NT_CLUSTERS_SELECT, [this](const Event &e) {
            m_announced << e.userInfo.value(Events::kCurrentCountry).value<NQVPNCountry>().countryName;
        });
    }
    void cleanup()
    {
        EventBus::defaultCenter().removeObserver(this);
        m_vc.reset();
        m_fx.reset();
        m_clock.reset();
    }

    void favouriteMissingFromTheCatalogueStaysInTheFavouritesTabOnly()
    {
        storeFavourites({favourite("Atlantis"), favourite("Germany")});
        m_fx->vpn.countries = {eu("France"), eu("Germany")};
        m_vc->viewDidLoad();
        QCOMPARE(names(m_vc->tableSourceFavourites().tableData), (QStringList{"Atlantis", "Germany"}));
        QCOMPARE(names(m_vc->tableSourceAllLocations().tableData), (QStringList{"France", "Germany"}));
        QCOMPARE(favouriteFlags(), (QList<bool>{false, true}));
        QCOMPARE(storedFavourites(), (QStringList{"Atlantis", "Germany"}));
        QVERIFY(!m_vc->loadingOverlayVisible());

        // A later catalogue carries the marks over by name as well.
        EventBus::defaultCenter().post(Events::NOTIFICATION_CLUSTERS_LOADED,
                                       catalogue({eu("Germany", 3), eu("Spain", 4)}));
        QCOMPARE(favouriteFlags(), (QList<bool>{true, false}));
        QCOMPARE(names(m_vc->tableSourceFavourites().tableData), (QStringList{"Atlantis", "Germany"}));
    }

    void duplicateNamesMarkOnlyTheFirst()
    {
        storeFavourites({favourite("Germany")});
        m_fx->vpn.countries = {eu("Germany", 1), eu("Germany", 2)};
        m_vc->viewDidLoad();
        QCOMPARE(favouriteFlags(), (QList<bool>{true, false}));
    }

    void damagedFavouritesAreReplacedByAnEmptyList()
    {
        const QString key = QString::fromLatin1(ClustersVC::kClusterItemsKey);
        m_fx->storage.setValue(key, QByteArray("not an archive"));
        QVERIFY(m_vc->loadStoredClustersItems().isEmpty());
        const auto stored = m_fx->storage.arrayForKey<NQVPNCountry>(key);
        QVERIFY(stored.has_value());
        QVERIFY(stored->isEmpty());
        QVERIFY(m_vc->loadStoredClustersItems().isEmpty());
    }

    void defaultClusterThenFirstRecordThenNothing()
    {
        m_vc->viewDidLoad();
        auto &bus = EventBus::defaultCenter();
        bus.post(Events::NOTIFICATION_CLUSTERS_LOADED, catalogue({eu("A", 1), eu("B", 2, true), eu("C", 3)}));
        QCOMPARE(m_vc->selectedCountry()->countryName, QStringLiteral("B"));
        QVERIFY(m_announced.contains(QStringLiteral("B")));
        QCOMPARE(selectedFlags(), (QList<bool>{false, true, false}));
        QCOMPARE(m_vc->tableSourceAllLocations().selectedRow(), 1);

        // The choice survives a new catalogue by name, even without a default.
        m_vc->clickRow(2);
        bus.post(Events::NOTIFICATION_CLUSTERS_LOADED, catalogue({eu("C", 3), eu("D", 4)}));
        QCOMPARE(m_vc->selectedCountry()->countryName, QStringLiteral("C"));
        QCOMPARE(m_vc->tableSourceAllLocations().selectedRow(), 0);

        ClustersVC fresh(m_fx->services);
        fresh.viewDidLoad();
        m_announced.clear();
        bus.removeObserver(m_vc.get());
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

    void clickBelowTheLastRowKeepsAndReannouncesTheChoice()
    {
        m_fx->vpn.countries = {eu("A", 1), eu("B", 2)};
        m_vc->viewDidLoad();
        m_vc->clickRow(1);
        QCOMPARE(m_announced, QStringList{"B"});
        m_vc->clickRow(-1);
        QCOMPARE(m_vc->selectedCountry()->countryName, QStringLiteral("B"));
        QCOMPARE(m_vc->tableSourceAllLocations().selectedRow(), 1);
        QVERIFY(m_announced.size() >= 2);
        QVERIFY(m_announced.count(QStringLiteral("B")) == m_announced.size());
        QCOMPARE(selectedFlags(), (QList<bool>{false, true}));
        // Shown again: the choice is announced again.
        m_announced.clear();
        m_vc->viewDidAppear();
        QCOMPARE(m_announced, QStringList{"B"});
    }

    void markersFollowTheChosenName()
    {
        m_fx->vpn.countries = {eu("A", 1), eu("B", 2), eu("B", 3)};
        m_vc->viewDidLoad();
        m_vc->clickRow(2);
        QCOMPARE(selectedFlags(), (QList<bool>{false, true, true}));
        m_vc->clickRow(0);
        QCOMPARE(selectedFlags(), (QList<bool>{true, false, false}));
        m_vc->deselectAll();
        QCOMPARE(selectedFlags(), (QList<bool>{false, false, false}));
        QVERIFY(!m_vc->selectedCountry());
    }

    void favouritesFollowTheStarAndUnfavouritingOnTheTabClearsTheChoice()
    {
        m_fx->vpn.countries = {eu("A", 1), eu("B", 2)};
        m_vc->viewDidLoad();
        m_vc->clickFavourite(1, true);
        m_vc->clickFavourite(0, true);
        // Rebuilt from the catalogue's marks, in catalogue order, and kept.
        QCOMPARE(names(m_vc->tableSourceFavourites().tableData), (QStringList{"A", "B"}));
        QCOMPARE(storedFavourites(), (QStringList{"A", "B"}));

        m_vc->clickTabFavourites();
        QCOMPARE(m_vc->selectedCountry()->countryName, QStringLiteral("A")); // first favourite
        m_vc->clickFavourite(0, false);
        QVERIFY(!m_vc->selectedCountry());
        QCOMPARE(names(m_vc->tableSourceFavourites().tableData), QStringList{"B"});
        QCOMPARE(favouriteFlags(), (QList<bool>{false, true}));
        QCOMPARE(storedFavourites(), QStringList{"B"});

        // A new screen (a new run) finds them again.
        EventBus::defaultCenter().removeObserver(m_vc.get());
        ClustersVC again(m_fx->services);
        again.viewDidLoad();
        QCOMPARE(names(again.tableSourceFavourites().tableData), QStringList{"B"});
        QCOMPARE(again.tableSourceAllLocations().tableData.at(1)->clusterFavourited, true);
    }

    void loadingEventsSwitchTheOverlay()
    {
        m_vc->viewDidLoad();
        EventBus::defaultCenter().post(Events::NOTIFICATION_LOADING_START);
        QVERIFY(m_vc->loadingOverlayVisible());
        EventBus::defaultCenter().post(Events::NOTIFICATION_LOADING_END);
        QVERIFY(!m_vc->loadingOverlayVisible());
    }
};

QTEST_GUILESS_MAIN(TstClusters)
#include "tst_clusters.moc"
