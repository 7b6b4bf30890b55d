#pragma once

#include "ui/HomeMainPanelDelegate.h"
#include "ui/SettingsDelegate.h"
#include "ui/UiServices.h"

#include <QObject>

// The home screen: shows either the connection panel or the settings panel and switches the
// overlays (About view, update panel) on the events the menus post.
class HomeVC : public QObject, public HomeMainPanelDelegate, public SettingsDelegate {
    Q_OBJECT
public:
    enum class Panel { Main, Settings };

    explicit HomeVC(const UiServices &services, QObject *parent = nullptr);
    ~HomeVC() override;

    Panel panel() const { return m_panel; }
    bool aboutVisible() const { return m_aboutVisible; }
    bool updateVisible() const { return m_updateVisible; }
    bool loadingActive() const { return m_loadingActive; }

    void viewDidLoad();
    void notificationSubscribe();
    void notificationsUnsubscribe();
    void showSettings();
    void showMainPanel();
    void closePopups();
    void notificationHideContext();
    void clickMainPanelMinimize();

    void clickMainPanelClose() override;
    void clickMainPanelInfo() override;
    void clickMainPanelSettings() override;
    void clickSettingsPanelClose() override;

signals:
    void changed();
    // The window should handle a close click (it decides between quitting and minimising).
    void closeRequested();
    void minimizeRequested();

private:
    void setAbout(bool visible);
    void setUpdate(bool visible);

    UiServices m_services;
    Panel m_panel = Panel::Main;
    bool m_aboutVisible = false;
    bool m_updateVisible = false;
    bool m_loadingActive = false;
    bool m_notificationsSubscribed = false;
};
