// The panel's real-location lookup and its error dialogs.
#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "shell/AlertPresenter.h"
#include "ui/HomeMainPanelVC.h"
#include "ui/LocationLookup.h"
#include "ui/UiText.h"
#include "ui/VpnEngine.h"

#include <QLocale>
#include <QPointer>

namespace {
const OsLog kLog("HomeMainPanelVC");

QString countryDisplayName(const QString &code, const QString &fallback)
{
    const QLocale::Territory territory = QLocale::codeToTerritory(code);
    if (territory == QLocale::AnyTerritory)
        return fallback.isEmpty() ? code : fallback;
    // The name in the user's language where that language has a locale for the territory
    // ("Deutschland" on a German system); English otherwise.
    const QLocale::Language language = QLocale().language();
    const QLocale there(language, territory);
    if (there.language() == language && there.territory() == territory && !there.nativeTerritoryName().isEmpty())
        return there.nativeTerritoryName();
    return QLocale::territoryToString(territory);
}
} // namespace

QString HomeMainPanelVC::flagOrUnknown(const QString &code) const
{
    const QString flag = m_services.vpn.flagForCountryCode(code.toLower());
    if (!flag.isNull())
        return flag;
    NQLog::line(QStringLiteral("|HomeMainPanelVC| NO IMAGE FOR COUNTRY: %1").arg(code));
    return m_services.vpn.flagForCountryCode(QStringLiteral("Unknown"));
}

void HomeMainPanelVC::refreshLocation()
{
    QPointer<HomeMainPanelVC> self(this);
    m_services.location.checkMyLocation(
        [self](const QString &ip, const QString &code, const QString &name, const QString &errorText) {
            if (!self)
                return;
            if (errorText.isNull()) {
                const QString country = countryDisplayName(code, name);
                const QString flag = self->flagOrUnknown(code);
                self->onMain([=](HomeMainPanelVC &vc) {
                    vc.change([&](MainPanelDisplay &d) {
                        d.labelLocation = country;
                        d.locationFlag = flag;
                        d.labelIpAddress = ip;
                    });
                });
                self->m_services.storage.storeRealIp(ip);
                self->m_services.storage.storeCountry(country);
            } else if (errorText == QLatin1String(LocationLookup::kAlreadyCalled)) {
                if (self->m_locationGetTry >= kLocationRetryLimit) {
                    self->m_locationGetTry = 0;
                } else {
                    self->m_locationGetTry += 1;
                    MainQueue::after(kLocationRetryDelayMs, [self] {
                        if (self)
                            self->refreshLocation();
                    });
                }
            }
            self->hideLoadingOverlay();
        });
}

void HomeMainPanelVC::showErrorMessage(const QString &message, const QString &title, std::function<void()> retryBlock)
{
    onMain([=](HomeMainPanelVC &vc) {
        AlertRequest request;
        request.title = title;
        request.message = message;
        request.buttons = {{UiText::forKey(QStringLiteral("Retry")), kAlertFirstButton},
                           {UiText::forKey(QStringLiteral("Cancel")), kAlertFirstButton + 1}};
        vc.m_services.alerts.runModal(request, [retryBlock](long answer) {
            kLog.info(QStringLiteral("Alert: %1").arg(answer));
            if (answer == kAlertFirstButton && retryBlock)
                retryBlock();
        });
    });
}

void HomeMainPanelVC::showErrorInternet()
{
    showErrorMessage(
        QStringLiteral("It seems that your connection to our server is lost. Please fix connection and try again."),
        QStringLiteral("Connection Error"), nullptr);
}
