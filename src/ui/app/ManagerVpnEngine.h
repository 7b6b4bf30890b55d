#pragma once

#include "ui/VpnEngine.h"

#include <memory>

class NQVPNManager;

// The screens' VPN engine over NQVPNManager. Tunnel states reach the screens on the main
// thread and in the order they happened, whichever thread the manager reported them on.
class ManagerVpnEngine : public VpnEngine {
public:
    explicit ManagerVpnEngine(NQVPNManager &manager) : m_manager(manager) {}
    ~ManagerVpnEngine() override;

    QList<NQVPNCountry> availableCountries() const override;
    std::optional<NQVPNCountry> currentCountry() const override;
    void setCurrentCountry(const std::optional<NQVPNCountry> &country) override;
    void getCountries(CountriesCompletion completion) override;
    void getCountryVPNConfig(qint64 countryId, ConfigCompletion completion) override;
    void startVPNConnectionWithConfigContent(const QString &content, const QString &countryName) override;
    void stopVPNConnection() override;
    bool hasConnectionStateCallback() const override { return m_callback != nullptr; }
    void setOnConnectionStateChange(StateCallback callback) override;
    QString flagForCountryCode(const QString &code) const override;
    bool killSwitchEnabled() const override;
    void setKillSwitchEnabled(bool on) override;
    bool trafficBlocked() const override;
    void setOnTrafficBlockedChange(BlockedCallback callback) override;
    void setHoldBlockBetweenRuns(bool hold) override;

private:
    NQVPNManager &m_manager;
    // States already queued for a replaced callback are dropped with it.
    std::shared_ptr<StateCallback> m_callback;
};
