#include "ui/ClustersTableSource.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "ui/ClustersTableSourceDelegate.h"

int ClustersTableSource::rowOfRecord(const ClusterRecord &record) const
{
    return static_cast<int>(tableData.indexOf(record));
}

ClusterRecord ClustersTableSource::recordAt(int row) const
{
    return row >= 0 && row < tableData.size() ? tableData.at(row) : ClusterRecord();
}

QList<ClusterRecord> ClustersTableSource::getFavouritedClustersItems() const
{
    QList<ClusterRecord> favourites;
    for (const ClusterRecord &record : tableData)
        if (record->clusterFavourited)
            favourites.append(record);
    return favourites;
}

void ClustersTableSource::selectRow(int row)
{
    if (row < 0 || row >= tableData.size())
        row = -1;
    if (row == m_selectedRow)
        return;
    m_selectedRow = row;
    tableViewSelectionDidChange();
}

void ClustersTableSource::reloadData()
{
    if (m_selectedRow >= tableData.size())
        m_selectedRow = -1;
}

void ClustersTableSource::setCellSelected(const ClusterRecord &record, bool selected)
{
    if (record)
        record->clusterSelected = selected;
}

void ClustersTableSource::tableViewSelectionDidChange()
{
    if (m_selectedRow < 0) {
        if (delegate)
            delegate->clustersTableSourceDidDeselect(*this);
        return;
    }
    const ClusterRecord record = tableData.at(m_selectedRow);
    record->clusterSelected = true;
    EventBus::defaultCenter().post(Events::NT_CLUSTERS_SELECT,
                                   {{QString::fromLatin1(Events::kCurrentCountry), QVariant::fromValue(*record)}});
    setCellSelected(record, true);
    for (const ClusterRecord &other : tableData)
        if (other->countryName != record->countryName)
            setCellSelected(other, false);
    if (delegate)
        delegate->clustersTableSourceDidSelectCell(*this, record);
}

void ClustersTableSource::clickFavourite(int row, bool on)
{
    const ClusterRecord record = recordAt(row);
    if (!record)
        return;
    NQLog::line(QStringLiteral("|ClusterCellView| clickFavourite"));
    record->clusterFavourited = on;
    clusterCellFavourited(record);
}

void ClustersTableSource::clusterCellFavourited(const ClusterRecord &record)
{
    if (delegate)
        delegate->clustersTableSourceDidFavouriteCell(*this, record);
}
