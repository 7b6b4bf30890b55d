#pragma once

#include "ui/MainPanelDisplay.h"
#include "ui/TunnelKeeper.h"
#include "ui/UiServices.h"

#include <QObject>

#include <functional>
#include <memory>
#include <vector>

class HomeMainPanelDelegate;
class MainTimer;

// The connection panel: loads the catalogue, starts and stops the tunnel with one button and
// shows the state the engine reports, the session time and both locations. All display work
// happens on the main queue; the state setters may be called from any thread.
class HomeMainPanelVC : public QObject {
    Q_OBJECT
public:
    static constexpr int kSessionTickMs = 1000;
    // The geolocation service refuses overlapping lookups; retry this often, this far apart.
    static constexpr int kLocationRetryLimit = 20;
    static constexpr int kLocationRetryDelayMs = 1000;
    // Answer of an alert's first button ("Retry" in the error dialog).
    static constexpr long kAlertFirstButton = 1000;

    explicit HomeMainPanelVC(const UiServices &services, QObject *parent = nullptr);
    ~HomeMainPanelVC() override;

    void setDelegate(HomeMainPanelDelegate *delegate) { m_delegate = delegate; }
    const MainPanelDisplay &display() const { return m_display; }
    bool isConnecting() const { return m_isConnecting; }
    quint64 sessionDurationSeconds() const { return m_sessionDurationSeconds; }
    int locationGetTry() const { return m_locationGetTry; }
    int runningTimerCount() const;
    const TunnelKeeper &keeper() const { return m_keeper; }

    // "HH:MM:SS"; the hour field widens past 99.
    static QString sessionTimeText(quint64 seconds);

    void viewDidLoad();
    void initVPN();
    void installVpnConfiguration();
    bool isVPNConnected() const;
    void onConnectionStateChange(int state);

    void setConnected();
    void setConnecting();
    void setDisconnecting();
    void setDisconnected();
    // The tunnel fell and the keeper is bringing it back: like connecting, with the attempt.
    void setReconnecting();

    void clickConnect();
    void clickClose();
    void clickInfo();
    void clickSettings();

    void refreshLocation();
    void refreshVirtualLocation();
    void resetVirtualLocation();
    void refreshConnectButton();
    void showLoadingOverlay();
    void hideLoadingOverlay();
    void startTimer();
    void stopTimer();
    void timerUpdateSessionDuration();
    void playLocationLabel();
    void stopAllLocationLabels();
    void startMapAnimation();
    void stopMapAnimation();
    void closePopups();
    void hideContextMenu();
    void showErrorInternet();
    void showErrorMessage(const QString &message, const QString &title, std::function<void()> retryBlock);
    void installingVpnFailed();

signals:
    void displayChanged();

private:
    void notificationsSubscribe();
    void connectAutomatically();
    void showCredentialsRefused();
    void onMain(std::function<void(HomeMainPanelVC &)> work);
    void showTrafficBlocked(bool blocked);
    void change(const std::function<void(MainPanelDisplay &)> &edit);
    void setButtonTitle(MainPanelDisplay &d, const QString &key);
    QString flagOrUnknown(const QString &code) const;

    UiServices m_services;
    HomeMainPanelDelegate *m_delegate = nullptr;
    MainPanelDisplay m_display;
    bool m_isConnecting = false;
    bool m_notificationsSubscribed = false;
    bool m_autoconnectTried = false;
    TunnelKeeper m_keeper;
    quint64 m_sessionDurationSeconds = 0;
    int m_locationGetTry = 0;
    // Every timer ever started keeps running until stopped; only the last one is remembered,
    // so a second start without a stop leaves two timers counting the same session.
    std::vector<std::unique_ptr<MainTimer>> m_timers;
    MainTimer *m_sessionDurationTimer = nullptr;
};
