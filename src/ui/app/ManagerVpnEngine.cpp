#include "ui/app/ManagerVpnEngine.h"

#include "foundation/MainQueue.h"
#include "vpn/FlagUtils.h"
#include "vpn/NQVPNManager.h"

ManagerVpnEngine::~ManagerVpnEngine()
{
    if (m_callback)
        m_manager.setOnConnectionStateChange({});
}

QList<NQVPNCountry> ManagerVpnEngine::availableCountries() const
{
    return m_manager.availableCountries();
}

std::optional<NQVPNCountry> ManagerVpnEngine::currentCountry() const
{
    return m_manager.currentCountry();
}

void ManagerVpnEngine::setCurrentCountry(const std::optional<NQVPNCountry> &country)
{
    m_manager.setCurrentCountry(country);
}

void ManagerVpnEngine::getCountries(CountriesCompletion completion)
{
    m_manager.getCountries([completion = std::move(completion)](const QList<NQVPNCountry> &, const NQErrorOpt &error) {
        completion(error);
    });
}

void ManagerVpnEngine::getCountryVPNConfig(qint64 countryId, ConfigCompletion completion)
{
    m_manager.getCountryVPNConfig(
        countryId, [completion = std::move(completion)](const QString &ovpn, const QString &, const NQErrorOpt &error) {
            completion(ovpn, error);
        });
}

void ManagerVpnEngine::startVPNConnectionWithConfigContent(const QString &content, const QString &countryName)
{
    m_manager.startVPNConnectionWithConfigContent(content, countryName);
}

void ManagerVpnEngine::stopVPNConnection()
{
    m_manager.stopVPNConnection();
}

void ManagerVpnEngine::setOnConnectionStateChange(StateCallback callback)
{
    if (!callback) {
        m_callback.reset();
        m_manager.setOnConnectionStateChange({});
        return;
    }
    m_callback = std::make_shared<StateCallback>(std::move(callback));
    // Always through the main queue, also from the main thread, so a state reported there
    // cannot overtake one still queued from the tunnel thread.
    m_manager.setOnConnectionStateChange([weak = std::weak_ptr<StateCallback>(m_callback)](int state) {
        MainQueue::async([weak, state] {
            if (const auto target = weak.lock())
                (*target)(state);
        });
    });
}

QString ManagerVpnEngine::flagForCountryCode(const QString &code) const
{
    return FlagUtils::defaultInstance().getFlagForCountryCode(code);
}

bool ManagerVpnEngine::killSwitchEnabled() const
{
    return m_manager.killSwitchEnabled();
}

void ManagerVpnEngine::setKillSwitchEnabled(bool on)
{
    m_manager.setKillSwitchEnabled(on);
}

bool ManagerVpnEngine::trafficBlocked() const
{
    return m_manager.trafficBlocked();
}

void ManagerVpnEngine::setOnTrafficBlockedChange(BlockedCallback callback)
{
    m_manager.setOnTrafficBlockedChange(std::move(callback));
}

void ManagerVpnEngine::setHoldBlockBetweenRuns(bool hold)
{
    m_manager.setHoldBlockBetweenRuns(hold);
}
