#pragma once

#include "foundation/MainQueue.h"
#include "ui/SettingsSwitch.h"
#include "ui/UiServices.h"

#include <QObject>
#include <QString>
#include <QVariantMap>

class SettingsDelegate;

// The settings screen: switches and the interface language change nothing until Apply, which
// stores them, updates the login item and restarts the window when the language changed.
class SettingsVC : public QObject {
    Q_OBJECT
public:
    // While shown, the ad blocker switch follows the extension at this pace.
    static constexpr int kAdBlockerRefreshMs = 2000;
    // A connected tunnel gets this long to stop before the window is rebuilt.
    static constexpr int kRestartAfterStopMs = 1000;

    explicit SettingsVC(const UiServices &services, QObject *parent = nullptr);
    ~SettingsVC() override;

    void setDelegate(SettingsDelegate *delegate) { m_delegate = delegate; }

    SettingsSwitch switchAdBlocking;
    SettingsSwitch switchCompression;
    SettingsSwitch switchAutoconnect;
    SettingsSwitch switchStartup;
    SettingsSwitch switchExitOnClose;
    SettingsSwitch switchAutoupdate;
    SettingsSwitch switchAutocheckUpdate{false, false};
    // Saved the moment it is clicked, outside Apply: it guards the network, so what the
    // switch shows is what holds.
    SettingsSwitch switchKillSwitch;

    QString buttonLanguagesTitle() const { return m_languageTitle; }
    bool languageListVisible() const { return m_languageListVisible; }
    bool buttonApplyEnabled() const { return m_applyEnabled; }
    bool overlayVisible() const { return m_overlayVisible; }
    bool changesNeedRestart() const { return m_changesNeedRestart; }
    QString newLanguageCode() const { return m_newLanguageCode; }
    bool refreshTimerActive() const { return m_refreshTimer.isActive(); }

    void viewWillAppear();
    void viewDidDisappear();

    // Switch actions: the view passes the switch's new position.
    void clickAdBlocker(bool on);
    void clickCompression(bool on);
    void clickAutoconnect(bool on);
    void clickRunStartup(bool on);
    void clickExitClose(bool on);
    void clickAutoUpdate(bool on);
    void clickKillSwitch(bool on);
    void clickLangauge();
    void clickApply();
    void clickClose();

    void loadFromUserDefaults();
    void saveToUserDefaults();
    void applyChanges();
    void refreshButtonApply();
    void updateAdBlocker();
    void openGoogleChrome();
    void showNeedReconnect();
    void startLoading();
    void stopLoading();
    void notificationsSubscribe();
    void notificationsUnsubscribe();
    void handleLanguageSelected(const QVariantMap &userInfo);

signals:
    void changed();

private:
    bool extensionReady();

    UiServices m_services;
    SettingsDelegate *m_delegate = nullptr;
    bool m_currentAdBlocking = false;
    bool m_currentCompression = false;
    bool m_currentStartup = false;
    bool m_currentExitOnClose = false;
    bool m_currentAutoupdate = false;
    QString m_newLanguageCode;
    bool m_changesNeedRestart = false;
    QString m_languageTitle;
    bool m_languageListVisible = false;
    bool m_applyEnabled = false;
    bool m_overlayVisible = false;
    MainTimer m_refreshTimer;
};
