#pragma once

#include "ui/ClusterRecord.h"

class ClustersTableSource;

// What a table source reports to the server list screen.
class ClustersTableSourceDelegate {
public:
    virtual ~ClustersTableSourceDelegate() = default;
    virtual void clustersTableSourceDidSelectCell(ClustersTableSource &source, const ClusterRecord &record) = 0;
    virtual void clustersTableSourceDidDeselect(ClustersTableSource &source) = 0;
    virtual void clustersTableSourceDidFavouriteCell(ClustersTableSource &source, const ClusterRecord &record) = 0;
    virtual void clustersTableSourceDidChangeFavourites(ClustersTableSource &source) = 0;
};
