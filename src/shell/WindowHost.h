#pragma once

#include <QList>
#include <QString>

#include <functional>

class SplashVC;

// The status-bar item as the shell describes it: a title, an icon name and menu entries
// (a null title is a separator).
struct StatusMenu {
    struct Item {
        QString title;
        std::function<void()> action;
    };
    QString buttonTitle;
    QString imageName;
    QList<Item> items;
};

// The windowing side of the application. The GUI implements it with widgets; headless runs
// and tests use other implementations. All calls come on the main thread.
class WindowHost {
public:
    static constexpr int kMainWindowWidth = 522;
    static constexpr int kMainWindowHeight = 319;

    virtual ~WindowHost() = default;

    // A new borderless main window of kMainWindowWidth x kMainWindowHeight, centered, with the
    // start-up screen in it. Not yet shown.
    virtual void createMainWindow(SplashVC &splash) = 0;
    // Orders the main window out and drops it.
    virtual void dropMainWindow() = 0;
    // Regular activation policy, activate, main window key and front.
    virtual void showMainWindow() = 0;
    // Regular activation policy and activate, without ordering the window front.
    virtual void activateWithoutWindow() = 0;
    virtual void miniaturizeMainWindow() = 0;
    virtual void deminiaturizeMainWindow() = 0;
    // Replaces the status-bar item (the previous one disappears).
    virtual void setupStatusItem(const StatusMenu &menu) = 0;
    // Titled, closable, miniaturisable window titled `title`, home screen as content.
    virtual void openHome(const QString &title) = 0;
    // No Dock icon and no menu (before quitting after an update).
    virtual void setActivationPolicyProhibited() = 0;
    // Whether the desktop shows the status item at all (many Linux desktops have no tray).
    virtual bool statusItemAvailable() const { return true; }
};
