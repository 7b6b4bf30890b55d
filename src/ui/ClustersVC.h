#pragma once

#include "ui/ClustersTableSource.h"
#include "ui/ClustersTableSourceDelegate.h"
#include "ui/ServerLatencyMonitor.h"
#include "ui/UiServices.h"

#include <QObject>

// The server list: all locations and favourites in two tabs, the user's choice of cluster
// and the favourites kept across runs under "CLUSTER_ITEMS".
class ClustersVC : public QObject, public ClustersTableSourceDelegate {
    Q_OBJECT
public:
    static constexpr auto kClusterItemsKey = "CLUSTER_ITEMS";
    enum Tab : unsigned { AllLocations = 0, Favourites = 1 };

    explicit ClustersVC(const UiServices &services, QObject *parent = nullptr);
    // With a probe, each cluster's latency is measured while the list is shown.
    ClustersVC(const UiServices &services, std::shared_ptr<ServerLatencyProbe> latency, QObject *parent = nullptr);
    ~ClustersVC() override;

    unsigned selectedTab() const { return m_selectedTab; }
    const ClusterRecord &selectedCountry() const { return m_selectedCountry; }
    bool loadingOverlayVisible() const { return m_loadingOverlay; }
    ClustersTableSource &tableSourceAllLocations() { return m_all; }
    ClustersTableSource &tableSourceFavourites() { return m_favourites; }
    ClustersTableSource &currentSource() { return m_selectedTab == Favourites ? m_favourites : m_all; }

    void viewDidLoad();
    void viewDidAppear();
    void viewDidDisappear();
    void notificationsUnsubscribe();

    void clickTabAllLocations();
    void clickTabFavourites();
    // A click on a row of the current tab (-1: into empty space) and on a row's star.
    void clickRow(int row);
    void clickFavourite(int row, bool on);
    // Shows the rows by latency (fastest first, unmeasured last) or in catalogue order. Only
    // the order shown changes: rows keep their numbers, and the rules above see the catalogue.
    void clickSortByLatency(bool on);
    bool sortByLatency() const { return m_sortByLatency; }
    // Row numbers of the current tab in the order they are shown.
    QList<int> rowsInDisplayOrder() const;
    ServerLatencyProbe::Result latencyOf(const ClusterRecord &record) const;

    void refreshFavouritesFromSource(ClustersTableSource &source);
    void refreshSelectedClusterInAllTable();
    // With "Connect automatically" on, the cluster of the last tunnel when the list has it.
    ClusterRecord autoconnectChoice() const;
    void refreshClustersSelectionMarkers();
    void deselectAll();
    void storeClustersItems(const QList<ClusterRecord> &items);
    QList<ClusterRecord> loadStoredClustersItems();
    void notificationClustersSelected(const ClusterRecord &record);

    void clustersTableSourceDidSelectCell(ClustersTableSource &source, const ClusterRecord &record) override;
    void clustersTableSourceDidDeselect(ClustersTableSource &source) override;
    void clustersTableSourceDidFavouriteCell(ClustersTableSource &source, const ClusterRecord &record) override;
    void clustersTableSourceDidChangeFavourites(ClustersTableSource &source) override;

signals:
    void changed();

private:
    void setAllLocations(const QList<NQVPNCountry> &countries);
    void setOverlay(bool visible);

    UiServices m_services;
    unsigned m_selectedTab = AllLocations;
    ClusterRecord m_selectedCountry;
    ClustersTableSource m_all;
    ClustersTableSource m_favourites;
    bool m_loadingOverlay = true;
    bool m_sortByLatency = false;
    ServerLatencyMonitor m_latency;
};
