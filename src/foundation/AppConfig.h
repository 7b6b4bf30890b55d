#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <functional>

// The configuration a build is branded and pointed with: the property lists "CommonConfig.plist"
// and "ReleaseConfig.plist" in the resources folder, the bundle information, fixed values and
// the device identifier. Nothing is cached: every call reads the files again.
//
// String accessors return a null QString where the key is missing (or holds no string).
class AppConfig {
public:
    // Keys of the configuration dictionary.
    static constexpr auto kLocalizationsKey = "Localizations";
    static constexpr auto kPrivacyPolicyUrlKey = "Privacy Policy Url";
    static constexpr auto kEulaUrlKey = "EULA Url";
    static constexpr auto kSupportUrlKey = "Support Url";
    static constexpr auto kUninstallUrlKey = "Uninstall Url";
    static constexpr auto kUpdateUrlDirectKey = "Update Url Direct";
    static constexpr auto kUpdateUrlLatestVersionKey = "UpdateUrlLatestVersion";
    static constexpr auto kHostUrlKey = "Host URL";
    static constexpr auto kSendLogsEmailKey = "Send Logs Email";

    // "CommonConfig.plist" deeply extended with "ReleaseConfig.plist". A missing or unreadable
    // file counts as an empty dictionary.
    static QVariantMap configs();

    static QString appVersion(); // "CFBundleShortVersionString" as it stands
    // appVersion's leading integer ("2.10" -> 2, no digits -> 0); not a comparable version.
    static qint64 appVersionNumber();
    static QString copyright();
    static QStringList appLocalizations(); // empty where missing
    // Application data folder: the application-support folder plus the bundle identifier.
    // Neither is created here; null where the support folder is unknown.
    static QString appDataURL();
    static QString privacyPolicyUrl();
    static QString eulaUrl();
    static QString supportUrl();
    static QString uninstallUrl();
    static QString updateUrlDirect();
    static QString updateUrlLatestVersion();
    static QString hostUrl();
    static QString sendLogsEmail();
    static QString labelID();            // "20014"
    static QString chromeExtensionsID(); // store identifier of the companion browser extension

    // The device identifier kept in the keychain; made, logged and stored when the keychain has
    // none. Once read or made it stays the same for the rest of the run. When the keychain cannot
    // answer (locked and not unlocked, or unreachable) nothing is made for keeping: the run gets
    // an identifier of its own that is never stored, so the keychain's own survives for the next
    // run (AppStorageManager::secretsNotKept() says why). Waits for the keychain the first time.
    static QString deviceUniqueID();
    // The same without waiting: `completion` gets it at once when the run already knows it,
    // otherwise on the main queue once the keychain has answered.
    static void deviceUniqueID(std::function<void(const QString &)> completion);

private:
    static QString configString(const char *key);
};
