#pragma once

#include <QWidget>

class ClustersVC;
class QCheckBox;
class QLabel;
class QListWidget;
class QPushButton;

// Draws the server list (two tabs, the sort choice, rows with flag, name, latency, star and
// active marker) from its state and forwards clicks to it.
class ClustersWidget : public QWidget {
public:
    ClustersWidget(ClustersVC &clusters, QWidget *parent = nullptr);
    void render();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    QWidget *makeRow(int row);
    // Row number of the source behind a shown position, and back (-1 when none).
    int rowAt(int position) const;

    ClustersVC &m_vc;
    QPushButton *m_tabAll;
    QPushButton *m_tabFavourites;
    QCheckBox *m_sort;
    QListWidget *m_list;
    QLabel *m_overlay;
    bool m_rendering = false;
};
