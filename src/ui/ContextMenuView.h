#pragma once

#include <functional>

class UrlOpener;

// The home screen's context menu: Support, Update, About, Uninstall. Every entry first closes
// the open overlays and the menu, then runs its own action.
class ContextMenuView {
public:
    explicit ContextMenuView(UrlOpener &urls) : m_urls(urls) {}

    void clickSupport();
    void clickUpdate();
    void clickAbout();
    void clickUninstall();
    // Where no tray menu offers a way out, the menu has a Quit entry that runs `quit`.
    void setQuitAction(std::function<void()> quit) { m_quit = std::move(quit); }
    bool hasQuit() const { return bool(m_quit); }
    void clickQuit();

    // closePopups, then "NT_HIDE_CONTEXT".
    void hide();
    // "NT_HIDE_ABOUT", "NT_HIDE_CONTEXT", "NT_HIDE_UPDATE", in this order.
    static void closePopups();

private:
    UrlOpener &m_urls;
    std::function<void()> m_quit;
};
