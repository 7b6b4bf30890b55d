// The keyed accessors and reset operations of AppStorageManager.
#include "foundation/AppStorageManager.h"

#include "foundation/Log.h"

namespace {
constexpr auto kNotFirstRun = "NotFirstRun";
constexpr auto kEulaConfirmed = "eulaConfirmed";
constexpr auto kExitOnClose = "EXIT_ON_CLOSE";
constexpr auto kRunAtStartup = "RUN_AT_STARTUP";
constexpr auto kAutoUpdate = "UDAutoUpdate";
constexpr auto kAutoCheckUpdate = "UDAutoCheckUdate"; // spelled so in every installed copy
constexpr auto kSkipVersion = "UDSkipVersion";
constexpr auto kLanguageCode = "LanguageCode";
constexpr auto kSupportLink = "SUPPORT_LINK";
constexpr auto kPostInstallLink = "POSTINSTALL_LINK";
constexpr auto kPostUninstallLink = "POSTUNINSTALL_LINK";
constexpr auto kEulaUrl = "nq.eulaUrl";
constexpr auto kPrivacyUrl = "nq.privacyUrl";
constexpr auto kVpnDisabled = "nq.vpn.disabled";
constexpr auto kVpnStatus = "UDVpnStatus";
constexpr auto kRealIp = "UDRealIpAddress";
constexpr auto kRealCountry = "UDRealCountry";
constexpr auto kVirtualIp = "UDVirtualIpAddress";
constexpr auto kVirtualCountry = "UDVirtualCountry";
constexpr auto kVirtualCountryCode = "UDVirtualCountryCode";
constexpr auto kCompression = "vpnDataCompressionEnabled";
constexpr auto kAdsBlocker = "AdsBlocker";
constexpr auto kBrowserChromeLink = "AppData.BrowserChromeLink";
constexpr auto kAccountKey = "nq.accountKey";
constexpr auto kKeyFromStore = "nq.keyFromStore";
// Declared for compatibility with older builds; ad blocking uses "AdsBlocker".
[[maybe_unused]] constexpr auto kVpnAdBlockingEnabled = "vpnAdBlockingEnabled";

QString k(const char *key)
{
    return QLatin1String(key);
}
// A null string removes the key, as the user defaults store does with nil.
QVariant text(const QString &value)
{
    return value.isNull() ? QVariant() : QVariant(value);
}
} // namespace

bool AppStorageManager::notFirstRun() const
{
    return boolForKey(kNotFirstRun);
}
void AppStorageManager::storeNotFirstRun(bool value)
{
    writeValue(k(kNotFirstRun), value);
}
bool AppStorageManager::eulaConfirmed() const
{
    return boolForKey(kEulaConfirmed);
}
bool AppStorageManager::storeEulaConfirmed(bool value)
{
    writeValue(k(kEulaConfirmed), value);
    return true;
}
bool AppStorageManager::appExitOnClose() const
{
    return boolForKey(kExitOnClose);
}
void AppStorageManager::storeAppExitOnClose(bool value)
{
    writeValue(k(kExitOnClose), value);
}
bool AppStorageManager::appAutorunEnabled() const
{
    return boolForKey(kRunAtStartup);
}
void AppStorageManager::storeAppAutorunEnabled(bool value)
{
    writeValue(k(kRunAtStartup), value);
}
bool AppStorageManager::autoupdate() const
{
    return boolForKey(kAutoUpdate);
}
void AppStorageManager::storeAutoupdate(bool value)
{
    writeValue(k(kAutoUpdate), value);
}
bool AppStorageManager::autoCheckUpdate() const
{
    return boolForKey(kAutoCheckUpdate);
}
void AppStorageManager::storeAutoCheckUpdate(bool value)
{
    writeValue(k(kAutoCheckUpdate), value);
}
bool AppStorageManager::vpnDisabled() const
{
    return boolForKey(kVpnDisabled);
}
void AppStorageManager::setVpnDisabled(bool value)
{
    writeValue(k(kVpnDisabled), value);
}
bool AppStorageManager::vpnDataCompressionEnabled() const
{
    return boolForKey(kCompression);
}
bool AppStorageManager::storeVpnDataCompressionEnabled(bool value)
{
    writeValue(k(kCompression), value);
    return true;
}
bool AppStorageManager::adsBlockerEnabled() const
{
    return boolForKey(kAdsBlocker);
}
void AppStorageManager::storeAdsBlockerEnabled(bool value)
{
    writeValue(k(kAdsBlocker), value);
}

int AppStorageManager::getVPNStatus() const
{
    return integerForKey(kVpnStatus);
}
void AppStorageManager::storeVPNStatus(int value)
{
    setValueDeferred(k(kVpnStatus), value);
}
void AppStorageManager::removeVPNStatus()
{
    removeKey(k(kVpnStatus));
}

QString AppStorageManager::getVersionToSkip() const
{
    return stringForKey(kSkipVersion);
}
void AppStorageManager::storeVersionToSkip(const QString &value)
{
    writeValue(k(kSkipVersion), text(value));
}
void AppStorageManager::removeVersionToSkip()
{
    removeKey(k(kSkipVersion));
}
QString AppStorageManager::appLanguageCode() const
{
    return stringForKey(kLanguageCode);
}
void AppStorageManager::storeAppLanguageCode(const QString &value)
{
    writeValue(k(kLanguageCode), text(value));
}
void AppStorageManager::removeAppLanguageCode()
{
    removeKey(k(kLanguageCode));
}
QString AppStorageManager::supportLink() const
{
    return stringForKey(kSupportLink);
}
void AppStorageManager::storeSupportLink(const QString &value)
{
    writeValue(k(kSupportLink), text(value));
}
void AppStorageManager::removeSupportLink()
{
    removeKey(k(kSupportLink));
}
QString AppStorageManager::postInstallLink() const
{
    return stringForKey(kPostInstallLink);
}
void AppStorageManager::storePostInstallLink(const QString &value)
{
    writeValue(k(kPostInstallLink), text(value));
}
void AppStorageManager::removePostInstallLink()
{
    removeKey(k(kPostInstallLink));
}
QString AppStorageManager::postUninstallLink() const
{
    return stringForKey(kPostUninstallLink);
}
void AppStorageManager::storePostUninstallLink(const QString &value)
{
    writeValue(k(kPostUninstallLink), text(value));
}
void AppStorageManager::removePostUninstallLink()
{
    removeKey(k(kPostUninstallLink));
}
QString AppStorageManager::eulaUrl() const
{
    return stringForKey(kEulaUrl);
}
void AppStorageManager::setEulaUrl(const QString &value)
{
    writeValue(k(kEulaUrl), text(value));
}
QString AppStorageManager::privacyUrl() const
{
    return stringForKey(kPrivacyUrl);
}
void AppStorageManager::setPrivacyUrl(const QString &value)
{
    writeValue(k(kPrivacyUrl), text(value));
}
QString AppStorageManager::getRealIp() const
{
    return stringForKey(kRealIp);
}
void AppStorageManager::storeRealIp(const QString &value)
{
    writeValue(k(kRealIp), text(value));
}
void AppStorageManager::removeRealIp()
{
    removeKey(k(kRealIp));
}
QString AppStorageManager::getCountry() const
{
    return stringForKey(kRealCountry);
}
void AppStorageManager::storeCountry(const QString &value)
{
    writeValue(k(kRealCountry), text(value));
}
void AppStorageManager::removeCountry()
{
    removeKey(k(kRealCountry));
}
QString AppStorageManager::getVirtualIP() const
{
    return stringForKey(kVirtualIp);
}
void AppStorageManager::storeVirtualIP(const QString &value)
{
    writeValue(k(kVirtualIp), text(value));
}
void AppStorageManager::removeVirtualIP()
{
    removeKey(k(kVirtualIp));
}
QString AppStorageManager::getVirtualCountry() const
{
    return stringForKey(kVirtualCountry);
}
void AppStorageManager::storeVirtualCountry(const QString &value)
{
    writeValue(k(kVirtualCountry), text(value));
}
void AppStorageManager::removeVirtualCountry()
{
    removeKey(k(kVirtualCountry));
}
QString AppStorageManager::getVirtualCountryCode() const
{
    return stringForKey(kVirtualCountryCode);
}
void AppStorageManager::storeVirtualCountryCode(const QString &value)
{
    writeValue(k(kVirtualCountryCode), text(value));
}
void AppStorageManager::removeVirtualCountryCode()
{
    removeKey(k(kVirtualCountryCode));
}
QString AppStorageManager::labelConfigBrowserChromeLink() const
{
    return stringForKey(kBrowserChromeLink);
}
void AppStorageManager::setLabelConfigBrowserChromeLink(const QString &value)
{
    writeValue(k(kBrowserChromeLink), text(value));
}

QString AppStorageManager::accountKey() const
{
    return stringForKey(kAccountKey);
}
void AppStorageManager::storeAccountKey(const QString &value)
{
    writeValue(k(kAccountKey), text(value));
}
bool AppStorageManager::keyFromStoreFlag() const
{
    return boolForKey(kKeyFromStore);
}
void AppStorageManager::storeKeyFromStoreFlag(bool value)
{
    writeValue(k(kKeyFromStore), value);
}

void AppStorageManager::removeAppStorage()
{
    NQLog::line(QStringLiteral("-[AppStorageManager removeAppStorage]"));
    std::lock_guard lock(m_mutex);
    m_settings->clear();
    m_settings->sync();
}

void AppStorageManager::removeAppCache()
{
    NQLog::line(QStringLiteral("-[AppStorageManager removeAppCache]"));
    removeRealIp();
    removeCountry();
    removeVirtualCountry();
    removeVirtualIP();
}

void AppStorageManager::removeAppData()
{
    NQLog::line(QStringLiteral("-[AppStorageManager removeAppData]"));
    removeAppCache();
    removeKey(k(kNotFirstRun));
}

void AppStorageManager::resetSettings()
{
    NQLog::line(QStringLiteral("-[AppStorageManager resetSettings]"));
    storeAppAutorunEnabled(true);
    storeAppExitOnClose(false);
    storeAutoupdate(false);
    storeAutoCheckUpdate(false);
    resetVPNSettings();
}

void AppStorageManager::resetVPNSettings()
{
    NQLog::line(QStringLiteral("-[AppStorageManager resetVPNSettings]"));
    storeVpnDataCompressionEnabled(false);
    storeAdsBlockerEnabled(false);
}
