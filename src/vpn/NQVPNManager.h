#pragma once

#include "foundation/NQError.h"
#include "vpn/NQVPNCountry.h"
#include "vpn/TunnelClientEnd.h"
#include "vpn/TunnelProfileFiles.h"
#include "vpn/VpnState.h"

#include <QList>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class TrafficBlock;
class TunnelProcess;
class TunnelStateReporter;

// The VPN engine: the server catalogue, the tunnel profile and the tunnel client process.
//
// Catalogue and profile requests complete on the main thread. The tunnel state (VpnState) is
// stored in the settings store ("UDVpnStatus") and reported through onConnectionStateChange:
// 2, 5 and the final 1 of a stop on the calling thread, the states read from the client's
// output (3, 1, 0) on the tunnel I/O thread, so the callback must be safe on any thread.
// Everything else is main-thread only.
class NQVPNManager {
public:
    using StateCallback = std::function<void(int state)>;
    using CountriesCompletion = std::function<void(const QList<NQVPNCountry> &countries, const NQErrorOpt &error)>;
    using ConfigCompletion =
        std::function<void(const QString &ovpn, const QString &serverAddress, const NQErrorOpt &error)>;

    static constexpr auto kErrorDomain = "com.pelorin.vpn.ios.vpn.error";
    static constexpr int kDeserializeErrorCode = -1;
    static constexpr auto kClientName = "ovpncli";
    // Keychain item of savePasswordToKeychain / retrievePasswordFromKeychain.
    static constexpr auto kKeychainService = "com.pelorin.vpn.mac";
    static constexpr auto kKeychainAccount = "PelorinVPNUser";
    static constexpr auto kKeychainLabel = "VPN User Password";
    // How long a stop waits for the kill by name before it logs and goes on.
    static constexpr int kKillByNameTimeoutMs = 10000;

    // A manager over the process-wide platform, settings store and backend configuration.
    NQVPNManager();
    ~NQVPNManager();
    NQVPNManager(const NQVPNManager &) = delete;
    NQVPNManager &operator=(const NQVPNManager &) = delete;

    static NQVPNManager &sharedManager();
    // Replaces the process-wide manager (tests); nullptr makes the next call build a new one.
    static void setSharedManagerForTesting(std::unique_ptr<NQVPNManager> manager);

    // --- Server catalogue
    // The clusters of the last completed server-list request (empty after a failed one).
    const QList<NQVPNCountry> &availableCountries() const { return m_availableCountries; }
    // The cluster the tunnel is for; set by the connection panel, cleared by stopVPNConnection.
    const std::optional<NQVPNCountry> &currentCountry() const { return m_currentCountry; }
    void setCurrentCountry(std::optional<NQVPNCountry> country) { m_currentCountry = std::move(country); }

    // GET of the server list. On the main thread, in this order: availableCountries replaced
    // (also on failure), notificationAppReady, notificationClustersLoaded, completion.
    void getCountries(CountriesCompletion completion);
    void notificationAppReady();
    void notificationClustersLoaded(const QList<NQVPNCountry> &countries);

    // --- Tunnel profile
    // GET of the cluster's profile; completion on the main thread with the values present,
    // even alongside an error (the missing-key error names the last missing key).
    void getCountryVPNConfig(qint64 countryId, ConfigCompletion completion);
    void clearTemporaryDirectory();
    QString writeConfigToTemporaryFile(const QString &config, const QString &countryName);
    QString writeCredentialsToTemporaryFileWithUsername(const QString &username, const QString &password);

    // --- Tunnel process
    // Prepares the profile and starts the client through sudo; the outcome arrives as states.
    // Each time its tunnel comes up, `countryName` is stored as the last connected cluster.
    void startVPNConnectionWithConfigContent(const QString &content, const QString &countryName);
    // Empties the temporary directory, 5, signals the recorded client, clears currentCountry,
    // then disconnectAllVPNConnections (which ends in 1).
    void stopVPNConnection();
    // The current client ended unreported (see setOnClientEnded) and the tunnel is to be
    // connected again: its run no longer counts and the state is 1. The profile files and
    // currentCountry stay for the next start.
    void tunnelLost();
    // Kills every client by name through sudo; blocks until pkill exits, at most
    // kKillByNameTimeoutMs (then logs and goes on); always ends in 1.
    void disconnectAllVPNConnections();
    void setKillByNameTimeoutForTesting(int ms) { m_killByNameTimeoutMs = ms; }

    StateCallback onConnectionStateChange() const;
    void setOnConnectionStateChange(StateCallback callback);

    // Called on the tunnel I/O thread when the current launch's client ended and its output
    // never said so: sudo refused it, or it was killed. The state is left as it was; the
    // owner shows the message and stops.
    using ClientEndCallback = std::function<void(const TunnelClientEnd &end)>;
    void setOnClientEnded(ClientEndCallback callback);

    // --- Blocking traffic outside the tunnel (the client's own firewall table)
    // The setting, saved as it changes (no Apply): it takes effect at the next connect.
    static constexpr auto kKillSwitchKey = "BlockTrafficOutsideVpn";
    // Set while a table of ours may be in place; the next program start clears it.
    static constexpr auto kKillSwitchLeftKey = "BlockTrafficOutsideVpnMayBeLeft";
    static constexpr auto kKillSwitchFlag = "--kill-switch";
    static constexpr auto kClearKillSwitchFlag = "--clear-kill-switch";
    bool killSwitchEnabled() const;
    // Turning it off lifts a block in place at once, even under a running tunnel.
    void setKillSwitchEnabled(bool on);
    // True while the client says its table is in place (also between two runs, see below).
    bool trafficBlocked() const;
    // Called on any thread when trafficBlocked changes.
    void setOnTrafficBlockedChange(std::function<void(bool blocked)> callback);
    // A client that lost its tunnel leaves the block in place for the next run; unless an
    // owner that is reconnecting holds it, the engine lifts it when that client ends.
    // stopVPNConnection lets go of the hold and lifts the block.
    void setHoldBlockBetweenRuns(bool hold);
    // At program start: lifts a block a killed client or program left, when the switch is on
    // or a block may be left. Blocks the caller (bounded like the kill by name).
    void clearKillSwitchLeftBehind();
    // Runs the client's clear through sudo; true when it succeeded.
    bool clearKillSwitch();
    // The same on any thread, without touching the manager.
    static bool runClearKillSwitch(int timeoutMs);

    // --- Keychain helpers (not used by the rest of the application)
    void savePasswordToKeychain(const QString &password);
    QString retrievePasswordFromKeychain();

private:
    static QString requestUrl(const QString &endpoint, const QString &deviceID, const QString &countryIdSegment);

    QList<NQVPNCountry> m_availableCountries;
    std::optional<NQVPNCountry> m_currentCountry;
    TunnelProfileFiles m_files;
    std::shared_ptr<TunnelStateReporter> m_reporter;
    std::unique_ptr<TunnelProcess> m_process;
    std::shared_ptr<TrafficBlock> m_block;
    int m_killByNameTimeoutMs = kKillByNameTimeoutMs;
    // Replies that arrive after the manager is gone only reach their completion.
    std::shared_ptr<char> m_alive = std::make_shared<char>();
};
