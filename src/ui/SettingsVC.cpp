#include "ui/SettingsVC.h"

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "shell/AlertPresenter.h"
#include "ui/ChromeLauncher.h"
#include "ui/ExtensionControl.h"
#include "ui/LoginItemControl.h"
#include "ui/SettingsDelegate.h"
#include "ui/UiText.h"
#include "ui/VpnEngine.h"
#include "vpn/VpnState.h"

#include <QPointer>

SettingsVC::SettingsVC(const UiServices &services, QObject *parent) : QObject(parent), m_services(services) {}

SettingsVC::~SettingsVC()
{
    notificationsUnsubscribe();
}

void SettingsVC::viewWillAppear()
{
    notificationsSubscribe();
    m_languageListVisible = false;
    loadFromUserDefaults();
    refreshButtonApply();
    if (!m_refreshTimer.isActive())
        m_refreshTimer.start(kAdBlockerRefreshMs, [this] { updateAdBlocker(); });
}

void SettingsVC::viewDidDisappear()
{
    notificationsUnsubscribe();
    m_refreshTimer.stop();
}

void SettingsVC::notificationsSubscribe()
{
    EventBus &bus = EventBus::defaultCenter();
    bus.addObserver(this, Events::LANGUAGE_SELECTED, [this](const Event &event) {
        QPointer<SettingsVC> self(this);
        const QVariantMap info = event.userInfo;
        // The language list may post from its own click handler; the screen answers on the
        // main queue like every display change.
        MainQueue::async([self, info] {
            if (self)
                self->handleLanguageSelected(info);
        });
    });
    bus.addObserver(this, Events::NOTIFICATION_LOADING_END, [this](const Event &) { stopLoading(); });
}

void SettingsVC::notificationsUnsubscribe()
{
    EventBus::defaultCenter().removeObserver(this);
}

void SettingsVC::loadFromUserDefaults()
{
    const AppStorageManager &storage = m_services.storage;
    auto load = [](SettingsSwitch &control, bool &remembered, bool stored) {
        if (!control.present)
            return;
        control.on = stored;
        remembered = stored;
    };
    load(switchAdBlocking, m_currentAdBlocking, storage.adsBlockerEnabled());
    load(switchCompression, m_currentCompression, storage.vpnDataCompressionEnabled());
    load(switchStartup, m_currentStartup, storage.appAutorunEnabled());
    load(switchExitOnClose, m_currentExitOnClose, storage.appExitOnClose());
    if (switchAutoconnect.present)
        switchAutoconnect.on = storage.appAutoconnectEnabled();
    load(switchAutoupdate, m_currentAutoupdate, storage.autoupdate());
    switchKillSwitch.on = m_services.vpn.killSwitchEnabled();
    m_languageTitle = UiText::appLanguageName();
    emit changed();
}

void SettingsVC::saveToUserDefaults()
{
    AppStorageManager &storage = m_services.storage;
    if (switchAdBlocking.present)
        storage.storeAdsBlockerEnabled(switchAdBlocking.on);
    if (switchCompression.present)
        storage.storeVpnDataCompressionEnabled(switchCompression.on);
    if (switchStartup.present)
        storage.storeAppAutorunEnabled(switchStartup.on);
    storage.storeAppExitOnClose(switchExitOnClose.value());
    storage.storeAutoupdate(switchAutoupdate.value());
    if (!m_newLanguageCode.isEmpty())
        UiText::setAppLanguageCode(m_newLanguageCode);
    storage.flush();
    loadFromUserDefaults();
}

void SettingsVC::refreshButtonApply()
{
    const bool languageChanged = m_languageTitle != UiText::appLanguageName();
    m_applyEnabled = switchAdBlocking.value() != m_currentAdBlocking ||
                     switchCompression.value() != m_currentCompression || switchStartup.value() != m_currentStartup ||
                     switchExitOnClose.value() != m_currentExitOnClose ||
                     switchAutoupdate.value() != m_currentAutoupdate || languageChanged;
    // Follows the language title both ways: choosing the old language again needs no restart.
    m_changesNeedRestart = languageChanged;
    emit changed();
    updateAdBlocker();
}

void SettingsVC::applyChanges()
{
    startLoading();
    // Taken before saving: once the language is stored the title no longer differs from it.
    const bool restartNeeded = m_changesNeedRestart;
    saveToUserDefaults();
    refreshButtonApply();
    const bool autorun = m_services.storage.appAutorunEnabled();
    const bool listed = m_services.loginItems.appIsInLoginItems();
    if (autorun && !listed)
        m_services.loginItems.setLaunchAtLogin(true);
    else if (!autorun && listed)
        m_services.loginItems.setLaunchAtLogin(false);

    if (!restartNeeded) {
        stopLoading();
        return;
    }
    m_changesNeedRestart = false;
    stopLoading();
    auto restart = [] { EventBus::defaultCenter().post(Events::APP_RESTART); };
    if (m_services.storage.getVPNStatus() != VpnStateConnected) {
        MainQueue::async(restart);
        return;
    }
    m_services.vpn.stopVPNConnection();
    MainQueue::after(kRestartAfterStopMs, restart);
}

void SettingsVC::showNeedReconnect()
{
    AlertRequest request;
    request.title = QStringLiteral("Reconnect required");
    request.message = QStringLiteral("Please reconect to apply changes.");
    request.buttons = {{QStringLiteral("Ok"), AlertPresenter::kDefaultButtonTag}};
    QPointer<SettingsVC> self(this);
    m_services.alerts.runModal(request, [self](long) {
        if (!self)
            return;
        self->stopLoading();
        self->applyChanges();
    });
}

void SettingsVC::startLoading()
{
    m_overlayVisible = true;
    emit changed();
}

void SettingsVC::stopLoading()
{
    m_overlayVisible = false;
    emit changed();
}

void SettingsVC::clickClose()
{
    if (m_delegate)
        m_delegate->clickSettingsPanelClose();
}
