#pragma once

#include "foundation/EventBus.h"

#include <QString>

#include <functional>
#include <memory>

class AlertPresenter;
class ShellEngine;
class WindowHost;

// The start-up screen's sequence, without a view: optional automatic update, the Internet
// check one second after load, the VPN credentials, then the home screen. It also owns the
// application's error alert with up to four choices, which other screens reuse.
//
// Lives on the main thread. Every delayed step and every completion checks that the screen
// still exists, so a screen dropped by a restart is never called back.
class SplashVC {
public:
    using Block = std::function<void()>;

    enum class State { Loading, CheckingConnection, WaitingForCredentials, AlertShown, Left };
    // Alert button tags.
    static constexpr long kContinueTag = 0;
    static constexpr long kRetryTag = 1;
    static constexpr long kRestartTag = 2;
    static constexpr long kQuitTag = 3;
    // Delays of the sequence.
    static constexpr int kCheckConnectionDelayMs = 1000;
    static constexpr int kAppReadyOpenHomeDelayMs = 2000;
    static constexpr int kCredentialsStoreDelayMs = 3000;
    static constexpr int kRestartDelayMs = 5000;

    SplashVC(ShellEngine &engine, AlertPresenter &alerts, WindowHost &window);
    ~SplashVC();
    SplashVC(const SplashVC &) = delete;
    SplashVC &operator=(const SplashVC &) = delete;

    void viewDidLoad();
    void viewWillDisappear();
    void checkForUpdate();
    void checkConnection();
    void registerVpn();
    void registerVpnFor(const QString &deviceID);
    void openHome();
    void notificationsSubscribe();
    void notificationsUnsubscribe();

    void showAlertNoInternetWithContinueBlock(Block continueBlock, Block retryBlock);
    // Shown asynchronously on the main queue; missing blocks are null, missing options false.
    void showErrorMessage(const QString &message, const QString &title, Block continueBlock = {}, Block retryBlock = {},
                          bool restartOptionEnabled = false, bool quitOptionEnabled = false);

    State state() const { return m_state; }
    bool notificationsSubscribed() const { return m_notificationsSubscribed; }
    // Called on every state change (the GUI's view, the headless runner).
    void setStateObserver(std::function<void(State)> observer) { m_stateObserver = std::move(observer); }

private:
    void setState(State state);
    void handleAlertResult(long result, const Block &continueBlock, const Block &retryBlock, bool restart, bool quit);
    // Runs `fn` later only while this screen exists.
    std::function<void()> guarded(std::function<void()> fn);

    ShellEngine &m_engine;
    AlertPresenter &m_alerts;
    WindowHost &m_window;
    std::shared_ptr<char> m_alive = std::make_shared<char>();
    EventBus::Token m_appReadyToken = 0;
    bool m_notificationsSubscribed = false;
    State m_state = State::Loading;
    std::function<void(State)> m_stateObserver;
};
