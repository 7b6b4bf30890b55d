#include "ui/ClustersVC.h"

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "ui/VpnEngine.h"

#include <algorithm>
#include <climits>

namespace {

QList<NQVPNCountry> countriesFrom(const QVariant &value)
{
    if (value.canConvert<QList<NQVPNCountry>>())
        return value.value<QList<NQVPNCountry>>();
    QList<NQVPNCountry> countries;
    for (const QVariant &item : value.toList())
        if (item.canConvert<NQVPNCountry>())
            countries.append(item.value<NQVPNCountry>());
    return countries;
}

} // namespace

ClustersVC::ClustersVC(const UiServices &services, QObject *parent) : ClustersVC(services, nullptr, parent) {}

ClustersVC::ClustersVC(const UiServices &services, std::shared_ptr<ServerLatencyProbe> latency, QObject *parent)
    : QObject(parent), m_services(services), m_latency(std::move(latency), [this] { emit changed(); })
{
}

ClustersVC::~ClustersVC()
{
    notificationsUnsubscribe();
}

void ClustersVC::viewDidLoad()
{
    m_all.delegate = this;
    m_favourites.delegate = this;
    m_favourites.tableData = loadStoredClustersItems();
    m_all.tableData.clear();
    refreshFavouritesFromSource(m_favourites);

    EventBus &bus = EventBus::defaultCenter();
    bus.addObserver(this, Events::NOTIFICATION_CLUSTERS_LOADED, [this](const Event &event) {
        setAllLocations(countriesFrom(event.userInfo.value(Events::NQVpnKeyClustersArray)));
        setOverlay(false);
        refreshFavouritesFromSource(m_favourites);
        refreshSelectedClusterInAllTable();
        emit changed();
    });
    bus.addObserver(this, Events::NOTIFICATION_LOADING_START, [this](const Event &) { setOverlay(true); });
    bus.addObserver(this, Events::NOTIFICATION_LOADING_END, [this](const Event &) {
        NQLog::line(QStringLiteral("|ClustersVC| NT_LOADING_END"));
        m_all.reloadData();
        m_favourites.reloadData();
        refreshSelectedClusterInAllTable();
        setOverlay(false);
    });

    setAllLocations(m_services.vpn.availableCountries());
    setOverlay(false);
    refreshFavouritesFromSource(m_favourites);
    emit changed();
}

void ClustersVC::notificationsUnsubscribe()
{
    EventBus::defaultCenter().removeObserver(this);
}

void ClustersVC::setAllLocations(const QList<NQVPNCountry> &countries)
{
    QList<ClusterRecord> records;
    records.reserve(countries.size());
    for (const NQVPNCountry &country : countries)
        records.append(std::make_shared<NQVPNCountry>(country));
    m_all.tableData = records;
    m_all.reloadData();
    QStringList addresses;
    for (const NQVPNCountry &country : countries)
        addresses.append(country.serverAddress);
    m_latency.setAddresses(addresses);
}

void ClustersVC::setOverlay(bool visible)
{
    m_loadingOverlay = visible;
    emit changed();
}

void ClustersVC::viewDidAppear()
{
    m_latency.setShown(true);
    if (!m_selectedCountry)
        return;
    notificationClustersSelected(m_selectedCountry);
    refreshClustersSelectionMarkers();
    const int row = m_all.rowOfRecord(m_selectedCountry);
    if (row >= 0)
        m_all.selectRow(row);
    emit changed();
}

void ClustersVC::viewDidDisappear()
{
    m_latency.setShown(false);
}

void ClustersVC::clickSortByLatency(bool on)
{
    m_sortByLatency = on;
    emit changed();
}

ServerLatencyProbe::Result ClustersVC::latencyOf(const ClusterRecord &record) const
{
    return record ? m_latency.latency(record->serverAddress) : std::nullopt;
}

QList<int> ClustersVC::rowsInDisplayOrder() const
{
    const ClustersTableSource &source = m_selectedTab == Favourites ? m_favourites : m_all;
    QList<int> rows;
    for (int row = 0; row < source.numberOfRows(); ++row)
        rows.append(row);
    if (m_sortByLatency) {
        const auto key = [&](int row) { return latencyOf(source.recordAt(row)).value_or(INT_MAX); };
        std::stable_sort(rows.begin(), rows.end(), [&](int a, int b) { return key(a) < key(b); });
    }
    return rows;
}

void ClustersVC::clickTabAllLocations()
{
    m_selectedTab = AllLocations;
    m_all.reloadData();
    refreshSelectedClusterInAllTable();
    emit changed();
}

void ClustersVC::clickTabFavourites()
{
    m_selectedTab = Favourites;
    m_favourites.reloadData();
    refreshSelectedClusterInAllTable();
    emit changed();
}

void ClustersVC::clickRow(int row)
{
    currentSource().selectRow(row);
    emit changed();
}

void ClustersVC::clickFavourite(int row, bool on)
{
    currentSource().clickFavourite(row, on);
    emit changed();
}

void ClustersVC::notificationClustersSelected(const ClusterRecord &record)
{
    EventBus::defaultCenter().post(Events::NT_CLUSTERS_SELECT,
                                   {{QString::fromLatin1(Events::kCurrentCountry), QVariant::fromValue(*record)}});
}

void ClustersVC::storeClustersItems(const QList<ClusterRecord> &items)
{
    QList<NQVPNCountry> values;
    for (const ClusterRecord &record : items)
        values.append(*record);
    m_services.storage.setArray(values, QString::fromLatin1(kClusterItemsKey));
}

QList<ClusterRecord> ClustersVC::loadStoredClustersItems()
{
    const QString key = QString::fromLatin1(kClusterItemsKey);
    if (!m_services.storage.contains(key))
        return {};
    const std::optional<QList<NQVPNCountry>> stored = m_services.storage.arrayForKey<NQVPNCountry>(key);
    if (!stored) {
        // Damaged favourites are dropped for good rather than read again at every start.
        m_services.storage.setArray(QList<NQVPNCountry>(), key);
        return {};
    }
    QList<ClusterRecord> records;
    for (const NQVPNCountry &country : *stored)
        records.append(std::make_shared<NQVPNCountry>(country));
    return records;
}
