#pragma once

#include "ui/UiServices.h"

#include <QWidget>

#include <memory>

class AboutView;
class AboutWidget;
class ClustersVC;
class ContextMenuView;
class HomeMainPanelVC;
class HomeVC;
class QStackedWidget;
class ServerLatencyProbe;
class SettingsVC;
class UpdateVC;
class UpdateWidget;

// The home screen: the server list on the left, the connection panel or the settings panel
// on the right, and the About and update overlays. It owns the screens' state objects.
class HomeWidget : public QWidget {
public:
    static constexpr int kWidth = 760;
    static constexpr int kHeight = 440;

    // `latency` measures the servers of the list; without one the list shows no values.
    explicit HomeWidget(const UiServices &services, QWidget *parent = nullptr,
                        std::shared_ptr<ServerLatencyProbe> latency = nullptr);
    ~HomeWidget() override;

    HomeVC &home() { return *m_home; }
    HomeMainPanelVC &panel() { return *m_panel; }
    ClustersVC &clusters() { return *m_clusters; }
    SettingsVC &settings() { return *m_settings; }
    UpdateVC &update() { return *m_update; }
    ContextMenuView &menu() { return *m_menu; }

    void render();

protected:
    void resizeEvent(QResizeEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    std::unique_ptr<HomeVC> m_home;
    std::unique_ptr<HomeMainPanelVC> m_panel;
    std::unique_ptr<ClustersVC> m_clusters;
    std::unique_ptr<SettingsVC> m_settings;
    std::unique_ptr<UpdateVC> m_update;
    std::unique_ptr<ContextMenuView> m_menu;
    std::unique_ptr<AboutView> m_about;
    QStackedWidget *m_container;
    AboutWidget *m_aboutWidget;
    UpdateWidget *m_updateWidget;
    QWidget *m_dim;
};
