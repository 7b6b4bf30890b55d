// The settings screen's switch, language and ad blocker actions.
#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "shell/AlertPresenter.h"
#include "ui/ChromeLauncher.h"
#include "ui/ExtensionControl.h"
#include "ui/SettingsVC.h"
#include "ui/VpnEngine.h"

#include <QPointer>

void SettingsVC::clickCompression(bool on)
{
    switchCompression.on = on;
    refreshButtonApply();
}

void SettingsVC::clickAutoconnect(bool on)
{
    // Stored at once: this switch takes no part in Apply.
    NQLog::line(
        QStringLiteral("|SettingsVC| clickAutoconnect: %1").arg(on ? QLatin1String("on") : QLatin1String("off")));
    switchAutoconnect.on = on;
    if (switchAutoconnect.present)
        m_services.storage.storeAppAutoconnectEnabled(on);
    refreshButtonApply();
}

void SettingsVC::clickRunStartup(bool on)
{
    switchStartup.on = on;
    refreshButtonApply();
}

void SettingsVC::clickExitClose(bool on)
{
    switchExitOnClose.on = on;
    refreshButtonApply();
}

void SettingsVC::clickAutoUpdate(bool on)
{
    switchAutoupdate.on = on;
    refreshButtonApply();
}

void SettingsVC::clickApply()
{
    applyChanges();
}

void SettingsVC::clickLangauge()
{
    m_languageListVisible = !m_languageListVisible;
    emit changed();
}

void SettingsVC::handleLanguageSelected(const QVariantMap &userInfo)
{
    if (!userInfo.isEmpty()) {
        m_newLanguageCode = userInfo.firstKey();
        m_languageTitle = userInfo.first().toString();
    }
    m_languageListVisible = false;
    refreshButtonApply();
}

bool SettingsVC::extensionReady()
{
    return m_services.extension.isChromeInstalled() && m_services.extension.isChromeExtensionInstalled();
}

void SettingsVC::clickAdBlocker(bool on)
{
    NQLog::line(QStringLiteral("|SettingsVC| clickAdBlocker"));
    switchAdBlocking.on = on;
    if (!extensionReady()) {
        switchAdBlocking.on = false;
        refreshButtonApply();
        openGoogleChrome();
        return;
    }
    emit changed();
    QPointer<SettingsVC> self(this);
    MainQueue::async([self] {
        if (!self)
            return;
        if (self->switchAdBlocking.on)
            self->m_services.extension.sendEnableAdsBlocker();
        else
            self->m_services.extension.sendDisableAdsBlocker();
        self->refreshButtonApply(); // also follows the extension (updateAdBlocker)
    });
}

void SettingsVC::updateAdBlocker()
{
    const bool on = extensionReady() && m_services.storage.adsBlockerEnabled();
    if (on == switchAdBlocking.on)
        return;
    switchAdBlocking.on = on;
    emit changed();
}

void SettingsVC::openGoogleChrome()
{
    NQLog::line(QStringLiteral("|SettingsVC| openGoogleChrome"));
    const QString link = m_services.storage.labelConfigBrowserChromeLink();
    const NQErrorOpt error = m_services.chrome.openGoogleChrome({link});
    if (!error) {
        NQLog::line(QStringLiteral("|SettingsVC| click open Chrome done"));
        return;
    }
    NQLog::line(
        QStringLiteral("|SettingsVC| click open Chrome: Cannot open Google Chrome: %1").arg(error->debugDescription()));
    AlertRequest request;
    request.title = QStringLiteral("Cannot open Google Chrome");
    request.message = error->localizedDescription();
    request.buttons = {{QStringLiteral("Ok"), AlertPresenter::kDefaultButtonTag}};
    m_services.alerts.runModal(request, [](long) {});
}

void SettingsVC::clickKillSwitch(bool on)
{
    m_services.vpn.setKillSwitchEnabled(on);
    switchKillSwitch.on = m_services.vpn.killSwitchEnabled();
    emit changed();
}
