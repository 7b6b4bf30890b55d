#pragma once

#include "ui/ClusterRecord.h"

#include <QList>

class ClustersTableSourceDelegate;

// Rows of one tab of the server list, and the table's selection. Each row shows one record:
// its flag, name, favourite star and, while the record's clusterSelected is set, the active
// marker. Changing the selection, by click or by code, reports like a table would.
class ClustersTableSource {
public:
    QList<ClusterRecord> tableData;
    ClustersTableSourceDelegate *delegate = nullptr;

    int numberOfRows() const { return static_cast<int>(tableData.size()); }
    int selectedRow() const { return m_selectedRow; }
    // Row of this very record, -1 when it is not in the table.
    int rowOfRecord(const ClusterRecord &record) const;
    ClusterRecord recordAt(int row) const;

    // Records whose clusterFavourited is set, in list order.
    QList<ClusterRecord> getFavouritedClustersItems() const;

    // Selects `row` (-1 or past the end: nothing, as a click into empty space does). Only a
    // change of the selection is reported.
    void selectRow(int row);
    // Keeps the selection where the rows still reach it.
    void reloadData();

    // A cell's star was clicked: the cell writes the record's flag, then reports here.
    void clickFavourite(int row, bool on);
    void clusterCellFavourited(const ClusterRecord &record);

    // Marks a cell's record selected or not (the cell's active marker).
    static void setCellSelected(const ClusterRecord &record, bool selected);

private:
    void tableViewSelectionDidChange();

    int m_selectedRow = -1;
};
