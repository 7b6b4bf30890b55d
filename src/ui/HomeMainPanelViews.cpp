// The four views of the connection panel and what they switch: button, labels, overlay,
// map, markers and the session timer.
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "ui/HomeMainPanelVC.h"
#include "ui/UiText.h"
#include "ui/VpnEngine.h"

namespace {
const OsLog kLog("HomeMainPanelVC");

QString connectedTimeText(quint64 seconds)
{
    return QStringLiteral("%1: %2").arg(UiText::forKey(QStringLiteral("ConnectedTime")),
                                        HomeMainPanelVC::sessionTimeText(seconds));
}
} // namespace

QString HomeMainPanelVC::sessionTimeText(quint64 seconds)
{
    return QString::asprintf("%02ld:%02d:%02d", static_cast<long>(seconds / 3600),
                             static_cast<int>((seconds / 60) % 60), static_cast<int>(seconds % 60));
}

void HomeMainPanelVC::setButtonTitle(MainPanelDisplay &d, const QString &key)
{
    d.buttonTitle = UiText::forKey(key);
    d.buttonAlternateTitle = d.buttonTitle;
}

void HomeMainPanelVC::setConnecting()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| setConnecting"));
    onMain([](HomeMainPanelVC &vc) {
        vc.m_isConnecting = true;
        const std::optional<NQVPNCountry> country = vc.m_services.vpn.currentCountry();
        const bool again = vc.m_keeper.reconnecting();
        QString text = UiText::forKey(again ? QStringLiteral("Reconnecting_attempt")
                                            : QStringLiteral("ConnectingToTheSecureServerIn"));
        text.replace(QLatin1String("%@"),
                     again ? QString::number(vc.m_keeper.attempt()) : (country ? country->countryName : QString()));
        vc.change([&](MainPanelDisplay &d) {
            vc.setButtonTitle(d, QStringLiteral("Cancel"));
            d.buttonImage = QStringLiteral("button_normal3");
            d.labelState = again ? text : UiText::forKey(QString(QLatin1String("")));
            d.loadingOverlayLabel = text;
            d.connectedView = false;
        });
        vc.showLoadingOverlay();
        vc.startMapAnimation();
        vc.refreshConnectButton();
        vc.stopAllLocationLabels();
    });
}

void HomeMainPanelVC::setReconnecting()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| setReconnecting"));
    stopTimer();
    resetVirtualLocation();
    setConnecting();
}

void HomeMainPanelVC::setConnected()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| setConnected"));
    if (const std::optional<NQVPNCountry> country = m_services.vpn.currentCountry())
        kLog.info(QStringLiteral("Connected to %1, %2").arg(country->countryName, country->continent));
    onMain([](HomeMainPanelVC &vc) {
        vc.change([&](MainPanelDisplay &d) {
            vc.setButtonTitle(d, QStringLiteral("Disconnect"));
            d.buttonImage = QStringLiteral("button_normal3");
            d.labelState = connectedTimeText(0);
            d.connectedView = true;
        });
        vc.refreshVirtualLocation();
        vc.stopMapAnimation();
        vc.refreshConnectButton();
        vc.startTimer();
        vc.playLocationLabel();
    });
}

void HomeMainPanelVC::setDisconnecting()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| setDisconnecting"));
    onMain([](HomeMainPanelVC &vc) {
        vc.change([&](MainPanelDisplay &d) {
            vc.setButtonTitle(d, QStringLiteral("Cancel"));
            d.labelState = UiText::forKey(QStringLiteral("Disconnecting"));
            d.loadingOverlayLabel = d.labelState;
            d.connectedView = false;
        });
        vc.showLoadingOverlay();
        vc.refreshConnectButton();
        vc.stopAllLocationLabels();
    });
}

void HomeMainPanelVC::setDisconnected()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| setDisconnected"));
    onMain([](HomeMainPanelVC &vc) {
        // Shown with no tunnel wanted (stopped, refused, given up), the button reads Connect
        // and must mean it, not stop an attempt that is over.
        if (!vc.m_keeper.wanted())
            vc.m_isConnecting = false;
        vc.change([&](MainPanelDisplay &d) {
            vc.setButtonTitle(d, QStringLiteral("Connect"));
            d.buttonImage = QStringLiteral("button_normal");
            d.labelState = QString(QLatin1String(""));
            d.loadingOverlayLabel = QString(QLatin1String(""));
            d.connectedView = false;
        });
        vc.hideLoadingOverlay();
        vc.resetVirtualLocation();
        vc.stopMapAnimation();
        vc.refreshConnectButton();
        vc.stopTimer();
        vc.stopAllLocationLabels();
    });
}

void HomeMainPanelVC::refreshConnectButton()
{
    onMain([](HomeMainPanelVC &vc) {
        const bool enabled = vc.m_services.vpn.currentCountry().has_value();
        vc.change([&](MainPanelDisplay &d) { d.buttonEnabled = enabled; });
    });
}

void HomeMainPanelVC::refreshVirtualLocation()
{
    const std::optional<NQVPNCountry> country = m_services.vpn.currentCountry();
    const QString flag = m_services.vpn.flagForCountryCode(country ? country->countryIso : QString());
    change([&](MainPanelDisplay &d) {
        if (country) {
            d.labelVirtualIpAddress = country->serverAddress;
            d.labelVirtualLocation = country->countryName;
        }
        d.virtualLocationFlag = flag;
    });
}

void HomeMainPanelVC::resetVirtualLocation()
{
    onMain([](HomeMainPanelVC &vc) {
        vc.change([](MainPanelDisplay &d) {
            d.labelVirtualIpAddress = QStringLiteral("---");
            d.labelVirtualLocation = QStringLiteral("---");
            d.virtualLocationFlag = QString();
        });
    });
}

void HomeMainPanelVC::showLoadingOverlay()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| showLoadingOverlay"));
    onMain([](HomeMainPanelVC &vc) {
        vc.change([](MainPanelDisplay &d) { d.loadingOverlayVisible = true; });
        EventBus::defaultCenter().post(Events::NOTIFICATION_LOADING_START);
    });
}

void HomeMainPanelVC::hideLoadingOverlay()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| hideLoadingOverlay"));
    onMain([](HomeMainPanelVC &vc) {
        vc.change([](MainPanelDisplay &d) { d.loadingOverlayVisible = false; });
        EventBus::defaultCenter().post(Events::NOTIFICATION_LOADING_END);
    });
}

void HomeMainPanelVC::startTimer()
{
    auto timer = std::make_unique<MainTimer>();
    timer->start(kSessionTickMs, [this] { timerUpdateSessionDuration(); });
    m_sessionDurationTimer = timer.get();
    m_timers.push_back(std::move(timer));
}

void HomeMainPanelVC::stopTimer()
{
    if (m_sessionDurationTimer && m_sessionDurationTimer->isActive())
        m_sessionDurationTimer->stop();
    m_sessionDurationTimer = nullptr;
    m_sessionDurationSeconds = 0;
}

int HomeMainPanelVC::runningTimerCount() const
{
    int count = 0;
    for (const auto &timer : m_timers)
        count += timer->isActive() ? 1 : 0;
    return count;
}

void HomeMainPanelVC::timerUpdateSessionDuration()
{
    m_sessionDurationSeconds += 1;
    onMain([](HomeMainPanelVC &vc) {
        vc.change([&](MainPanelDisplay &d) { d.labelState = connectedTimeText(vc.m_sessionDurationSeconds); });
    });
}

void HomeMainPanelVC::playLocationLabel()
{
    const std::optional<NQVPNCountry> country = m_services.vpn.currentCountry();
    const QString continent = country ? country->continent : QString();
    const QString iso = country ? country->countryIso : QString();
    NQLog::line(QStringLiteral("|HomeMainPanelVC| playLocationLabel: %1, %2").arg(continent, iso));
    const std::optional<MapMarker> marker = MapMarkers::markerFor(continent, iso);
    change([&](MainPanelDisplay &d) { d.shownMarker = marker; });
}

void HomeMainPanelVC::stopAllLocationLabels()
{
    change([](MainPanelDisplay &d) { d.shownMarker.reset(); });
}

void HomeMainPanelVC::startMapAnimation()
{
    onMain([](HomeMainPanelVC &vc) { vc.change([](MainPanelDisplay &d) { d.mapAnimating = true; }); });
}

void HomeMainPanelVC::stopMapAnimation()
{
    onMain([](HomeMainPanelVC &vc) {
        vc.change([](MainPanelDisplay &d) {
            d.mapAnimating = false;
            d.mapImage = QStringLiteral("connecting");
        });
    });
}
