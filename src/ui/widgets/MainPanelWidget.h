#pragma once

#include <QWidget>

class ContextMenuView;
class ContextMenuWidget;
class FitLabel;
class HomeMainPanelVC;
class ImageButton;
class MapWidget;
class QLabel;

// Draws the connection panel from its state and forwards clicks to it.
class MainPanelWidget : public QWidget {
public:
    MainPanelWidget(HomeMainPanelVC &panel, ContextMenuView &menu, QWidget *parent = nullptr);

    void render();

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void placeOverlays();
    static void setFlag(QLabel *label, const QString &path);

    HomeMainPanelVC &m_panel;
    FitLabel *m_state;
    QLabel *m_blocked;
    MapWidget *m_map;
    FitLabel *m_overlay;
    ImageButton *m_connect;
    QLabel *m_locationCaption;
    QLabel *m_locationFlag;
    FitLabel *m_location;
    QLabel *m_ip;
    QLabel *m_virtualCaption;
    QLabel *m_virtualFlag;
    FitLabel *m_virtualLocation;
    QLabel *m_virtualIp;
    ContextMenuWidget *m_menu;
    QWidget *m_settingsButton = nullptr;
    QWidget *m_infoButton = nullptr;
};
