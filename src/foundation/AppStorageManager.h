#pragma once

#include "foundation/KeychainStore.h"
#include "foundation/NQError.h"
#include "foundation/UserDefaultsExtended.h"

#include <QSettings>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>
#include <mutex>

// Owner of everything the application remembers between runs. Plain preferences live in the
// user defaults store (QSettings in native format for "com.pelorin.vpn.mac"); the device
// identifier and the VPN credentials live in the keychain service "com.pelorin.vpn.mac".
//
// No other class names a settings key: everything goes through the accessors below. Readers
// return the stored value, or the unwritten value (false, 0, null string) when the key is
// missing or holds a value of the wrong type. String writers given a null string remove the
// key. Every write is on disk when the call returns. Safe to call from any thread.
class AppStorageManager {
public:
    // Keys kept here for the browser extension bridge; it reads and writes them through
    // value()/setValue()/removeKey() and the archive helpers.
    static constexpr auto kBlockedDomainsKey = "BlockedDomains";
    static constexpr auto kBlockerWhitelistKey = "BlockerWhitelist";
    static constexpr auto kExtensionStatisticsKey = "ExtensionStatistics";
    static constexpr auto kExtensionBlockedCookiesKey = "ExtensionBlockedCookies";

    struct VpnCredentials {
        QString username; // null where missing
        QString password; // null where missing
    };

    // A store over the settings file `settingsFilePath` (native format) and `keychain`.
    AppStorageManager(const QString &settingsFilePath, KeychainStore keychain);
    ~AppStorageManager();
    AppStorageManager(const AppStorageManager &) = delete;
    AppStorageManager &operator=(const AppStorageManager &) = delete;

    // The process-wide instance, made on first use over defaultSettingsFilePath() and the
    // keychain service "com.pelorin.vpn.mac".
    static AppStorageManager &sharedManager();
    // Replaces the process-wide instance (tests). nullptr makes the next sharedManager() call
    // build the default one again. Not to be called while another thread uses the old one.
    static void setSharedManagerForTesting(std::unique_ptr<AppStorageManager> manager);
    // Where the user's settings live: QSettings(NativeFormat, UserScope, "com.pelorin.vpn.mac"),
    // i.e. $XDG_CONFIG_HOME/com.pelorin.vpn.mac.conf on Linux.
    static QString defaultSettingsFilePath();

    QString settingsFilePath() const;
    const KeychainStore &keychain() const { return m_keychain; }

    // Booleans.
    bool notFirstRun() const;
    void storeNotFirstRun(bool value);
    bool eulaConfirmed() const;
    bool storeEulaConfirmed(bool value); // returns true
    bool appExitOnClose() const;
    void storeAppExitOnClose(bool value);
    bool appAutorunEnabled() const;
    void storeAppAutorunEnabled(bool value);
    bool autoupdate() const;
    void storeAutoupdate(bool value);
    bool autoCheckUpdate() const;
    void storeAutoCheckUpdate(bool value);
    bool vpnDisabled() const;
    void setVpnDisabled(bool value);
    bool vpnDataCompressionEnabled() const;
    bool storeVpnDataCompressionEnabled(bool value); // returns true
    bool adsBlockerEnabled() const;
    void storeAdsBlockerEnabled(bool value);
    // "Connect automatically" once the home screen has its catalogue ("AUTO_CONNECT"), and the
    // cluster of the last tunnel that came up, by name ("LAST_CLUSTER"; null before one did).
    bool appAutoconnectEnabled() const;
    void storeAppAutoconnectEnabled(bool value);
    QString lastConnectedCluster() const;
    void storeLastConnectedCluster(const QString &countryName);

    // Tunnel state (values of the tunnel controller). Stored like setValueDeferred(): it changes
    // on the way to every connection, where a durable write would delay the tunnel's start,
    // and a crash makes the stored state stale whatever was written.
    int getVPNStatus() const;
    void storeVPNStatus(int value);
    void removeVPNStatus();

    // Strings.
    QString getVersionToSkip() const;
    void storeVersionToSkip(const QString &value);
    void removeVersionToSkip();
    QString appLanguageCode() const;
    void storeAppLanguageCode(const QString &value);
    void removeAppLanguageCode();
    QString supportLink() const;
    void storeSupportLink(const QString &value);
    void removeSupportLink();
    QString postInstallLink() const;
    void storePostInstallLink(const QString &value);
    void removePostInstallLink();
    QString postUninstallLink() const;
    void storePostUninstallLink(const QString &value);
    void removePostUninstallLink();
    QString eulaUrl() const;
    void setEulaUrl(const QString &value);
    QString privacyUrl() const;
    void setPrivacyUrl(const QString &value);
    QString getRealIp() const;
    void storeRealIp(const QString &value);
    void removeRealIp();
    QString getCountry() const;
    void storeCountry(const QString &value);
    void removeCountry();
    QString getVirtualIP() const;
    void storeVirtualIP(const QString &value);
    void removeVirtualIP();
    QString getVirtualCountry() const;
    void storeVirtualCountry(const QString &value);
    void removeVirtualCountry();
    QString getVirtualCountryCode() const;
    void storeVirtualCountryCode(const QString &value);
    void removeVirtualCountryCode();
    QString labelConfigBrowserChromeLink() const;
    void setLabelConfigBrowserChromeLink(const QString &value); // null removes the key

    // Account values for the backend requests, kept under "nq.accountKey" (string) and
    // "nq.keyFromStore" (boolean). Nothing sets them by default: the key stays null and the
    // flag false until storeAccountKey / storeKeyFromStoreFlag are called.
    QString accountKey() const;
    void storeAccountKey(const QString &value);
    bool keyFromStoreFlag() const;
    void storeKeyFromStoreFlag(bool value);

    // Keychain items. Failures are logged by the keychain store and not reported here; a
    // missing item reads as a null string. All keychain work runs in order on SecretQueue's
    // thread: writes return at once, reads wait for their answer (the window's thread uses the
    // completion forms, which do not).
    //
    // Once the device identifier or the credentials have been read or stored they are remembered
    // for the run (the identifier's read brings the credentials along), so a connect reads them
    // without a keyring round trip; changes made to the keychain by other programs show at the
    // next start. When the keychain cannot serve (its unlock was refused, it did not answer) the run's secrets live in
    // memory only from then on, the keychain is not asked again (no second prompt), and
    // secretsNotKept() says why; what it held is left as it was.
    QString deviceUUID() const;
    bool storeDeviceUUID(const QString &uuid); // returns true
    void removeDeviceUUID();
    VpnCredentials getVpnCredentials() const;
    // The same without waiting: `completion` runs on the main queue.
    void getVpnCredentials(std::function<void(const VpnCredentials &)> completion) const;
    void storeVPNCredentials(const QString &username, const QString &password);
    void removeVpnCredentials();

    // The identifier as the keychain answered: found (value), no such item (null value, no
    // error), or not available (error: locked and not unlocked, or no answer).
    struct DeviceUUIDLookup {
        QString value;
        NQErrorOpt error;
    };
    DeviceUUIDLookup lookupDeviceUUID() const;
    // Uses `uuid` as the identifier for the rest of the run without writing it anywhere.
    void keepDeviceUUIDForThisRun(const QString &uuid);
    // The identifier already known to this run (no keychain access); null when none yet.
    QString knownDeviceUUID() const;
    // Why this run's identifier and credentials are not kept in the keychain; nullopt while they are.
    NQErrorOpt secretsNotKept() const;
    // Called once, on the main queue, when the run's secrets stop being kept (for telling the
    // person what will be lost and why). Replaces any earlier handler; empty removes it.
    static void setSecretsNotKeptHandler(std::function<void(const NQError &)> handler);

    // Reset operations; keychain items survive all of them.
    void removeAppStorage(); // every settings key at once
    void removeAppCache();   // real/virtual address and country, not the virtual country code
    void removeAppData();    // removeAppCache, then "NotFirstRun"
    void resetSettings();    // factory switches, then resetVPNSettings
    void resetVPNSettings(); // compression and ad blocking off

    // Generic access for keys owned by other parts (the extension bridge's keys above).
    // value() of a missing key is an invalid QVariant.
    QVariant value(const QString &key) const;
    void setValue(const QString &key, const QVariant &value); // invalid QVariant removes
    // Like setValue(), but the disk write is coalesced: readers see the value at once, and it
    // reaches the disk within kDeferredFlushMs (main queue), at the next durable write, at
    // flush() or when the manager is destroyed (QSettings may also write it when the event
    // loop next runs). For values rewritten many times a second (the
    // extension's statistics): a durable write costs a whole-file rewrite with fsync (measured
    // 8-25 ms on a busy VM disk), and a crash may lose only the last second of these values.
    void setValueDeferred(const QString &key, const QVariant &value);
    static constexpr int kDeferredFlushMs = 1000;
    void removeKey(const QString &key);
    bool contains(const QString &key) const;

    // Archived objects and arrays in the keyed-archive format (see UserDefaultsExtended.h).
    template <class T> bool setObject(const T &object, const QString &key, NQErrorOpt *error = nullptr)
    {
        return UserDefaultsExtended::setObject(*this, object, key, error);
    }
    template <class T> std::optional<T> objectForKey(const QString &key, NQErrorOpt *error = nullptr) const
    {
        return UserDefaultsExtended::objectForKey<T>(*this, key, error);
    }
    template <class T> bool setArray(const QList<T> &array, const QString &key, NQErrorOpt *error = nullptr)
    {
        return UserDefaultsExtended::setArray(*this, array, key, error);
    }
    template <class T> std::optional<QList<T>> arrayForKey(const QString &key, NQErrorOpt *error = nullptr) const
    {
        return UserDefaultsExtended::arrayForKey<T>(*this, key, error);
    }

    // Writes pending settings to disk and waits for the keychain writes still on their way
    // (they run off the writer's thread). Call it before quitting.
    void flush();

private:
    bool boolForKey(const char *key) const;
    int integerForKey(const char *key) const;
    QString stringForKey(const char *key) const;
    void writeValue(const QString &key, const QVariant &value);
    void openSettings();
    void flushSettings();
    // Keychain helpers; on SecretQueue's thread.
    bool keychainServes() const;
    void stopKeepingSecrets(const NQError &why) const;
    void writeSecret(const QString &value, const QString &account) const;
    VpnCredentials readVpnCredentials() const;

    mutable std::mutex m_mutex;
    bool m_flushScheduled = false;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0); // lets a scheduled flush see we are gone
    std::unique_ptr<QSettings> m_settings;
    QString m_path;
    KeychainStore m_keychain;

    // The run's memory of its secrets (see secretsNotKept()).
    struct RunSecrets {
        QString deviceUUID;
        VpnCredentials credentials;
        bool credentialsKnown = false; // read or written in this run
        NQErrorOpt notKept;
    };
    mutable std::mutex m_secretsMutex;
    mutable RunSecrets m_run;
};
