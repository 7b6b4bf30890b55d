// The server list's selection and favourites rules.
#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "ui/ClustersVC.h"

namespace {

ClusterRecord firstNamed(const QList<ClusterRecord> &records, const QString &countryName)
{
    for (const ClusterRecord &record : records)
        if (record->countryName == countryName)
            return record;
    return {};
}

} // namespace

ClusterRecord ClustersVC::autoconnectChoice() const
{
    const AppStorageManager &storage = m_services.storage;
    const QString last = storage.appAutoconnectEnabled() ? storage.lastConnectedCluster() : QString();
    return last.isEmpty() ? ClusterRecord() : firstNamed(m_all.tableData, last);
}

void ClustersVC::refreshFavouritesFromSource(ClustersTableSource &source)
{
    QList<ClusterRecord> favourites;
    // Walk a copy: with the favourites source the list is replaced below.
    const QList<ClusterRecord> records = source.tableData;
    for (const ClusterRecord &record : records) {
        if (record->clusterFavourited)
            favourites.append(record);
        // Names match records across the tabs; duplicates after the first keep their flag.
        if (const ClusterRecord match = firstNamed(m_all.tableData, record->countryName))
            match->clusterFavourited = record->clusterFavourited;
    }
    m_favourites.tableData = favourites;
    m_favourites.reloadData();
    storeClustersItems(favourites);
}

void ClustersVC::refreshSelectedClusterInAllTable()
{
    ClusterRecord choice = m_selectedCountry;
    if (choice) {
        const QString name = choice->countryName;
        if (const ClusterRecord match = firstNamed(m_all.tableData, name))
            m_all.selectRow(m_all.rowOfRecord(match));
        if (const ClusterRecord match = firstNamed(m_favourites.tableData, name))
            m_favourites.selectRow(m_favourites.rowOfRecord(match));
    } else if (const ClusterRecord last = autoconnectChoice()) {
        // About to connect by itself: to the cluster of the last tunnel, shown as chosen.
        choice = last;
    } else if (m_selectedTab == Favourites) {
        if (!m_favourites.tableData.isEmpty())
            choice = m_favourites.tableData.first();
    } else {
        for (const ClusterRecord &record : std::as_const(m_all.tableData))
            if (record->isDefault) {
                choice = record;
                break;
            }
        if (!choice && !m_all.tableData.isEmpty())
            choice = m_all.tableData.first();
    }
    if (!choice)
        return;
    // Announced every time, not only on a change: the engine forgets its cluster when a
    // tunnel stops, and this is what gives it back.
    choice->clusterSelected = true;
    notificationClustersSelected(choice);
    refreshClustersSelectionMarkers();
    currentSource().selectRow(currentSource().rowOfRecord(choice));
}

void ClustersVC::refreshClustersSelectionMarkers()
{
    const QString name = m_selectedCountry ? m_selectedCountry->countryName : QString();
    for (ClustersTableSource *source : {&m_all, &m_favourites})
        for (const ClusterRecord &record : std::as_const(source->tableData))
            ClustersTableSource::setCellSelected(record, m_selectedCountry && record->countryName == name);
}

void ClustersVC::deselectAll()
{
    m_selectedCountry.reset();
    for (ClustersTableSource *source : {&m_all, &m_favourites})
        for (const ClusterRecord &record : std::as_const(source->tableData))
            ClustersTableSource::setCellSelected(record, false);
    refreshClustersSelectionMarkers();
}

void ClustersVC::clustersTableSourceDidSelectCell(ClustersTableSource &, const ClusterRecord &record)
{
    m_selectedCountry = record;
    ClustersTableSource::setCellSelected(record, true);
    refreshClustersSelectionMarkers();
}

void ClustersVC::clustersTableSourceDidDeselect(ClustersTableSource &)
{
    NQLog::line(QStringLiteral("|ClustersVC| clustersTableSourceDidDeselect"));
    // The choice is kept: a click below the last row only announces it again.
    if (!m_selectedCountry)
        return;
    notificationClustersSelected(m_selectedCountry);
    refreshClustersSelectionMarkers();
    const int row = currentSource().rowOfRecord(m_selectedCountry);
    if (row >= 0)
        currentSource().selectRow(row);
}

void ClustersVC::clustersTableSourceDidFavouriteCell(ClustersTableSource &source, const ClusterRecord &record)
{
    NQLog::line(QStringLiteral("|ClustersVC| clustersTableSource didFavouriteCell: %1").arg(record->countryName));
    NQLog::line(QStringLiteral("|ClustersVC| id: %1")
                    .arg(m_selectedTab == Favourites ? QStringLiteral("favourites") : QStringLiteral("all")));
    if (m_selectedTab == Favourites)
        deselectAll();
    refreshFavouritesFromSource(source);
}

void ClustersVC::clustersTableSourceDidChangeFavourites(ClustersTableSource &source)
{
    NQLog::line(QStringLiteral("|ClustersVC| clustersTableSourceDidChangeFavourites"));
    refreshFavouritesFromSource(source);
    refreshSelectedClusterInAllTable();
}
