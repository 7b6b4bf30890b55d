#include "ui/HomeMainPanelVC.h"

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "shell/AlertPresenter.h"
#include "ui/HomeMainPanelDelegate.h"
#include "ui/UiText.h"
#include "ui/VpnEngine.h"
#include "vpn/VpnState.h"

#include <QPointer>

#include <algorithm>
#include <utility>

namespace {
const OsLog kLog("HomeMainPanelVC");
}

HomeMainPanelVC::HomeMainPanelVC(const UiServices &services, QObject *parent)
    : QObject(parent), m_services(services),
      m_keeper({.connect = [this] { installVpnConfiguration(); },
                .tunnelUp =
                    [this] {
                        const int state = m_services.storage.getVPNStatus();
                        return state == VpnStateConnecting || state == VpnStateConnected;
                    },
                .changed =
                    [this] {
                        if (m_keeper.reconnecting())
                            setReconnecting();
                    },
                .wanted =
                    [this] {
                        // Until the user stops, a block outlives a lost client.
                        m_services.vpn.setHoldBlockBetweenRuns(true);
                        EventBus::defaultCenter().post(Events::NT_TUNNEL_WANTED);
                    }})
{
}

HomeMainPanelVC::~HomeMainPanelVC()
{
    EventBus::defaultCenter().removeObserver(this);
}

void HomeMainPanelVC::onMain(std::function<void(HomeMainPanelVC &)> work)
{
    QPointer<HomeMainPanelVC> self(this);
    MainQueue::async([self, work = std::move(work)] {
        if (self)
            work(*self);
    });
}

void HomeMainPanelVC::change(const std::function<void(MainPanelDisplay &)> &edit)
{
    edit(m_display);
    emit displayChanged();
}

void HomeMainPanelVC::viewDidLoad()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| viewDidLoad"));
    const AppStorageManager &storage = m_services.storage;
    const QString country = storage.getCountry();
    const QString realIp = storage.getRealIp();
    change([&](MainPanelDisplay &d) {
        if (!country.isNull())
            d.labelLocation = country;
        if (!realIp.isNull())
            d.labelIpAddress = realIp;
    });
    setDisconnected();
    change([](MainPanelDisplay &d) { d.mapImage = QStringLiteral("connecting"); });
    stopAllLocationLabels();
    refreshConnectButton();
    notificationsSubscribe();
    refreshLocation();
    // refreshConnectButton above runs later on the main queue, so the button ends enabled
    // exactly when a cluster is chosen.
    change([](MainPanelDisplay &d) { d.buttonEnabled = false; });
    initVPN();
    // Said whenever the client's block holds, whatever the state says: also while a lost
    // tunnel is being restored.
    QPointer<HomeMainPanelVC> self(this);
    m_services.vpn.setOnTrafficBlockedChange([self](bool blocked) {
        MainQueue::async([self, blocked] {
            if (self)
                self->showTrafficBlocked(blocked);
        });
    });
    showTrafficBlocked(m_services.vpn.trafficBlocked());
}

void HomeMainPanelVC::showTrafficBlocked(bool blocked)
{
    change([blocked](MainPanelDisplay &d) {
        d.labelTrafficBlocked =
            blocked ? UiText::forKey(QStringLiteral("Traffic outside the VPN is blocked")) : QString();
    });
}

void HomeMainPanelVC::notificationsSubscribe()
{
    if (m_notificationsSubscribed)
        return;
    m_notificationsSubscribed = true;
    EventBus &bus = EventBus::defaultCenter();
    bus.addObserver(this, Events::NT_CLUSTERS_SELECT, [this](const Event &event) {
        const QVariant value = event.userInfo.value(Events::kCurrentCountry);
        if (value.canConvert<NQVPNCountry>())
            m_services.vpn.setCurrentCountry(value.value<NQVPNCountry>());
        else
            m_services.vpn.setCurrentCountry(std::nullopt);
        onMain([](HomeMainPanelVC &vc) { vc.refreshConnectButton(); });
    });
    bus.addObserver(this, Events::NT_HIDE_CONTEXT, [this](const Event &) { hideContextMenu(); });
    bus.addObserver(this, Events::NT_REFRESH_CONNECT, [this](const Event &) { refreshConnectButton(); });
    bus.addObserver(this, Events::NT_SYSTEM_SLEEP, [this](const Event &) { m_keeper.sleeping(); });
    bus.addObserver(this, Events::NT_SYSTEM_WAKE, [this](const Event &) { m_keeper.resumed(); });
    bus.addObserver(this, Events::NT_NETWORK_CHANGED, [this](const Event &) { m_keeper.networkChanged(); });
}

void HomeMainPanelVC::initVPN()
{
    NQLog::line(QStringLiteral("|VpnVC| initVPN"));
    QPointer<HomeMainPanelVC> self(this);
    m_services.vpn.getCountries([self](const NQErrorOpt &error) {
        if (!self)
            return;
        if (error) {
            self->showErrorMessage(UiText::forKey(QStringLiteral("vpn_setup_failed_check_internet")),
                                   QStringLiteral("Error"), nullptr);
            return;
        }
        self->hideLoadingOverlay();
        const AppStorageManager &storage = self->m_services.storage;
        if (self->isVPNConnected()) {
            const QString ip = storage.getVirtualIP();
            const QString country = storage.getVirtualCountry();
            const QString flag = self->m_services.vpn.flagForCountryCode(storage.getVirtualCountryCode());
            self->change([&](MainPanelDisplay &d) {
                d.labelVirtualIpAddress = ip.isNull() ? QString(QLatin1String("")) : ip;
                d.labelVirtualLocation = country.isNull() ? QString(QLatin1String("")) : country;
                d.virtualLocationFlag = flag;
            });
        } else {
            const QString unknown = self->m_services.vpn.flagForCountryCode(QStringLiteral("Unknown"));
            self->change([&](MainPanelDisplay &d) {
                d.labelVirtualIpAddress = QStringLiteral("- - -");
                d.labelVirtualLocation = QStringLiteral("- - -");
                d.virtualLocationFlag = unknown;
            });
        }
        if (storage.appAutoconnectEnabled() && !std::exchange(self->m_autoconnectTried, true))
            // After the server list has announced its choice (also on the main queue).
            self->onMain([](HomeMainPanelVC &vc) { vc.connectAutomatically(); });
    });
}

void HomeMainPanelVC::connectAutomatically()
{
    VpnEngine &vpn = m_services.vpn;
    // A stored 2 or 3 without a state callback is left from an earlier run (a crash).
    const int state = m_services.storage.getVPNStatus();
    if (m_isConnecting ||
        (vpn.hasConnectionStateCallback() && (state == VpnStateConnected || state == VpnStateConnecting)))
        return;
    if (!vpn.currentCountry()) {
        // No server list on screen to choose: the last cluster, else the default one.
        const QList<NQVPNCountry> countries = vpn.availableCountries();
        const QString last = m_services.storage.lastConnectedCluster();
        const auto named = [&](auto &&match) {
            const auto it = std::ranges::find_if(countries, match);
            return it == countries.end() ? std::optional<NQVPNCountry>() : std::optional<NQVPNCountry>(*it);
        };
        std::optional<NQVPNCountry> choice = named([&](const NQVPNCountry &c) { return c.countryName == last; });
        if (!choice)
            choice = named([](const NQVPNCountry &c) { return c.isDefault; });
        if (!choice && !countries.isEmpty())
            choice = countries.first();
        if (!choice)
            return;
        vpn.setCurrentCountry(choice);
    }
    NQLog::line(QStringLiteral("|HomeMainPanelVC| connect automatically to %1").arg(vpn.currentCountry()->countryName));
    m_keeper.userConnected();
    installVpnConfiguration();
}

bool HomeMainPanelVC::isVPNConnected() const
{
    return m_services.storage.getVPNStatus() == VpnStateConnected;
}

void HomeMainPanelVC::clickConnect()
{
    NQLog::line(QStringLiteral("|HomeMainPanelVC| clickConnect"));
    hideContextMenu();
    if (!isVPNConnected() && !m_isConnecting) {
        m_keeper.userConnected();
        installVpnConfiguration();
        return;
    }
    // Connected, connecting, reconnecting or disconnecting: the same button cancels or
    // disconnects, and the keeper stops before the stop reports anything.
    m_keeper.stopped();
    m_isConnecting = false;
    m_services.vpn.stopVPNConnection();
}

void HomeMainPanelVC::installVpnConfiguration()
{
    setConnecting();
    VpnEngine &vpn = m_services.vpn;
    vpn.setOnConnectionStateChange({});
    if (!vpn.hasConnectionStateCallback()) {
        QPointer<HomeMainPanelVC> self(this);
        vpn.setOnConnectionStateChange([self](int state) {
            kLog.info(QStringLiteral("VPN State: %1").arg(state));
            // The engine reports from its reader thread; the setters hop to the main queue.
            MainQueue::async([self, state] {
                if (self)
                    self->onConnectionStateChange(state);
            });
        });
    }
    const std::optional<NQVPNCountry> country = vpn.currentCountry();
    QPointer<HomeMainPanelVC> self(this);
    vpn.getCountryVPNConfig(country ? country->countryId : 0, [self](const QString &ovpn, const NQErrorOpt &error) {
        if (!self)
            return;
        if (error) {
            // While reconnecting the network may still be down: the keeper tries again later.
            if (self->m_keeper.reconnecting())
                self->m_keeper.attemptFailed();
            else
                self->installingVpnFailed();
            return;
        }
        VpnEngine &engine = self->m_services.vpn;
        std::optional<NQVPNCountry> current = engine.currentCountry();
        if (current) {
            current->ovpn = ovpn;
            engine.setCurrentCountry(current);
        }
        engine.startVPNConnectionWithConfigContent(current ? current->ovpn : QString(),
                                                   current ? current->countryName : QString());
    });
}

void HomeMainPanelVC::installingVpnFailed()
{
    QPointer<HomeMainPanelVC> self(this);
    showErrorMessage(UiText::forKey(QStringLiteral("installing_vpn_configuration_failed")), QStringLiteral("Error"),
                     [self] {
                         kLog.info(QStringLiteral("Retry"));
                         if (self)
                             self->installVpnConfiguration();
                     });
}

void HomeMainPanelVC::onConnectionStateChange(int state)
{
    if (m_keeper.stateChanged(state)) {
        m_services.vpn.setHoldBlockBetweenRuns(false);
        showCredentialsRefused();
    }
    switch (state) {
    case VpnStateConnected:
        setConnected();
        break;
    case VpnStateConnecting:
        setConnecting();
        break;
    case VpnStateDisconnecting:
        setDisconnecting();
        break;
    default:
        if (m_keeper.reconnecting())
            setReconnecting();
        else
            setDisconnected();
        break;
    }
}

void HomeMainPanelVC::showCredentialsRefused()
{
    onMain([](HomeMainPanelVC &vc) {
        AlertRequest request;
        request.title = UiText::forKey(QStringLiteral("Error"));
        request.message = UiText::forKey(QStringLiteral("vpn_credentials_refused"));
        request.buttons = {{UiText::forKey(QStringLiteral("Ok")), kAlertFirstButton}};
        vc.m_services.alerts.runModal(request, [](long) {});
    });
}

void HomeMainPanelVC::clickClose()
{
    if (m_delegate)
        m_delegate->clickMainPanelClose();
}

void HomeMainPanelVC::clickInfo()
{
    if (m_delegate)
        m_delegate->clickMainPanelInfo();
    change([](MainPanelDisplay &d) { d.contextMenuVisible = !d.contextMenuVisible; });
}

void HomeMainPanelVC::clickSettings()
{
    closePopups();
    if (m_delegate)
        m_delegate->clickMainPanelSettings();
}

void HomeMainPanelVC::closePopups()
{
    EventBus &bus = EventBus::defaultCenter();
    bus.post(Events::NT_HIDE_ABOUT);
    bus.post(Events::NT_HIDE_CONTEXT);
    bus.post(Events::NT_HIDE_UPDATE);
}

void HomeMainPanelVC::hideContextMenu()
{
    onMain([](HomeMainPanelVC &vc) { vc.change([](MainPanelDisplay &d) { d.contextMenuVisible = false; }); });
}
