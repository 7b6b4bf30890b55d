#pragma once

#include <QWidget>

class ClustersVC;
class QLabel;
class QListWidget;
class QPushButton;

// Draws the server list (two tabs, rows with flag, name, star and active marker) from its
// state and forwards clicks to it.
class ClustersWidget : public QWidget {
public:
    ClustersWidget(ClustersVC &clusters, QWidget *parent = nullptr);
    void render();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    QWidget *makeRow(int row);

    ClustersVC &m_vc;
    QPushButton *m_tabAll;
    QPushButton *m_tabFavourites;
    QListWidget *m_list;
    QLabel *m_overlay;
    bool m_rendering = false;
};
