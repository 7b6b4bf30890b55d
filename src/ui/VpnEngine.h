#pragma once

#include "foundation/NQError.h"
#include "vpn/NQVPNCountry.h"

#include <QList>
#include <QString>

#include <functional>
#include <optional>

// What the screens need from the VPN engine: the catalogue, the cluster in use, the profile
// request and the tunnel. The application passes an adapter over NQVPNManager; tests pass a
// fake that records calls.
class VpnEngine {
public:
    using StateCallback = std::function<void(int state)>;
    using CountriesCompletion = std::function<void(const NQErrorOpt &error)>;
    using ConfigCompletion = std::function<void(const QString &ovpn, const NQErrorOpt &error)>;

    virtual ~VpnEngine() = default;

    virtual QList<NQVPNCountry> availableCountries() const = 0;
    virtual std::optional<NQVPNCountry> currentCountry() const = 0;
    virtual void setCurrentCountry(const std::optional<NQVPNCountry> &country) = 0;

    // Loads the catalogue; the completion runs exactly once.
    virtual void getCountries(CountriesCompletion completion) = 0;
    // Fetches the profile of one cluster; the completion runs exactly once.
    virtual void getCountryVPNConfig(qint64 countryId, ConfigCompletion completion) = 0;
    virtual void startVPNConnectionWithConfigContent(const QString &content, const QString &countryName) = 0;
    virtual void stopVPNConnection() = 0;

    virtual bool hasConnectionStateCallback() const = 0;
    // An empty callback clears it.
    virtual void setOnConnectionStateChange(StateCallback callback) = 0;

    // Path of the flag image for an ISO code; "flag_unknown" for a null code or "Unknown",
    // null when there is no image for the code.
    virtual QString flagForCountryCode(const QString &code) const = 0;

    // Blocking traffic outside the tunnel: the setting, saved as it changes (off lifts a block
    // at once), and whether traffic is blocked now. The callback may come on any thread.
    using BlockedCallback = std::function<void(bool blocked)>;
    virtual bool killSwitchEnabled() const = 0;
    virtual void setKillSwitchEnabled(bool on) = 0;
    virtual bool trafficBlocked() const = 0;
    virtual void setOnTrafficBlockedChange(BlockedCallback callback) = 0;
    // While a tunnel is wanted, a block left by a client that ended stays for the next one.
    virtual void setHoldBlockBetweenRuns(bool hold) = 0;
};
