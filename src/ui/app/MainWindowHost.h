#pragma once

#include "shell/WindowHost.h"
#include "ui/UiServices.h"

#include <QObject>
#include <QPointer>

#include <functional>
#include <optional>

class HomeWidget;
class MainWindow;
class QMenu;
class QSystemTrayIcon;
class SplashWidget;

// The windows of the running program: one main window that starts borderless with the
// start-up screen and becomes a titled window with the home screen, plus the tray icon with
// the status menu. Main thread only.
class MainWindowHost : public QObject, public WindowHost {
public:
    explicit MainWindowHost(const UiServices &services, QObject *parent = nullptr);
    ~MainWindowHost() override;

    // The controller's answer to a close click: true lets the window close.
    void setShouldClose(std::function<bool()> shouldClose) { m_shouldClose = std::move(shouldClose); }
    // Clicking the tray icon activates the application.
    void setOnActivate(std::function<void()> onActivate) { m_onActivate = std::move(onActivate); }
    // The application's quit request, for the window's own Quit entry when there is no tray.
    void setOnQuit(std::function<void()> onQuit) { m_onQuit = std::move(onQuit); }
    // Overrides what the desktop says about its tray (unset: ask the desktop).
    void setSystemTrayAvailable(std::optional<bool> available) { m_trayAvailable = available; }

    QWidget *mainWindow() const;
    // Null until openHome.
    HomeWidget *homeWidget() const;
    QSystemTrayIcon *statusItem() const { return m_tray; }
    QMenu *statusMenu() const { return m_menu; }

    void createMainWindow(SplashVC &splash) override;
    void dropMainWindow() override;
    void showMainWindow() override;
    void activateWithoutWindow() override;
    void miniaturizeMainWindow() override;
    void deminiaturizeMainWindow() override;
    void setupStatusItem(const StatusMenu &menu) override;
    void openHome(const QString &title) override;
    void setActivationPolicyProhibited() override;
    bool statusItemAvailable() const override;

private:
    void dropStatusItem();

    UiServices m_services;
    QPointer<MainWindow> m_window;
    QPointer<SplashWidget> m_splash;
    QPointer<HomeWidget> m_home;
    QSystemTrayIcon *m_tray = nullptr;
    QMenu *m_menu = nullptr;
    std::function<bool()> m_shouldClose;
    std::function<void()> m_onActivate;
    std::function<void()> m_onQuit;
    std::optional<bool> m_trayAvailable;
};
