#pragma once

#include "foundation/NQError.h"

#include <QDateTime>
#include <QString>

#include <functional>
#include <optional>

// The application's client of its backend REST service: label settings, the browser
// extension link, the install event and the VPN account. Every request goes through
// BackendRequest (one shared session, the configured time-out, the five log lines) and calls
// its completion exactly once, on the main thread.
//
// Errors of this client are in "com.pelorin.vpn.mac.identity.error"; transport failures come
// as URLSessionError describes them. Nothing is retried.
class NQIdentityServer {
public:
    // What the account endpoint answered; a value it left out (or sent as null) stays empty.
    struct RegisterVpnResponse {
        bool success = false;
        QString message;
        QString username;
        QString password;
    };

    using LabelSettingsCompletion = std::function<void(const QString &support, const QString &linkAfterInstall,
                                                       const QString &linkAfterUninstall, const NQErrorOpt &)>;
    using BrowserConfigCompletion = std::function<void(bool success, const QString &url, const NQErrorOpt &)>;
    using AnalyticsCompletion = std::function<void(bool sent, const NQErrorOpt &)>;
    using RegisterVpnCompletion = std::function<void(const RegisterVpnResponse &, const NQErrorOpt &)>;
    // User name and password, or (on failure) two null strings and the error's description.
    using RegisterVpnApiCompletion =
        std::function<void(const QString &username, const QString &password, const QString &errorText)>;

    // The one client, made on first use.
    static NQIdentityServer &sharedManager();

    // GET <host>/api1/Configuration/labelsettings/<label>/<language>/<device>/<version>.
    // `key` and `mark` are taken but not sent.
    void labelsettingsForLabelID(const QString &labelID, const QString &deviceId, const QString &key, int mark,
                                 const QString &languageCode, const QString &appVersion,
                                 LabelSettingsCompletion completion);

    // GET <host>/api1/Configuration/extensiondownload/<label>/<browser>.
    void fetchBrowserExtensionConfigForLabelID(const QString &labelID, const QString &browser,
                                               BrowserConfigCompletion completion);

    // POST <host>/Configuration/installstats with a JSON body of eight keys ("country" added
    // only when `countryCode` is not null; "mark" is always 0, `mark` is not used).
    void reportAnalyticsEventForLabelID(const QString &labelID, const QString &deviceID, const QString &machineID,
                                        const QString &languageCode, const QString &countryCode,
                                        const QString &appVersion, int mark, bool isInstall,
                                        AnalyticsCompletion completion);

    // GET <host>/api1/vpnapi/create/<label>/<key>/<device>?deviceType=..&keyFromStore=..&engine=1,
    // bypassing any cached answer.
    void registerVpnForLabelID(const QString &labelID, const QString &deviceID, const QString &key, quint64 deviceType,
                               bool keyFromStore, RegisterVpnCompletion completion);

    // Asks for this device's account and stores the answer's credentials in the keychain
    // (a missing value clears its item). A failed request leaves the stored pair alone.
    void registerVpnApi(RegisterVpnApiCompletion completion);

    // A backend date in "yyyy-MM-dd'T'HH:mm:ssZZZZZ", else "yyyy-MM-dd'T'HH:mm:ss" (local
    // time), else the same with a 12-hour field; nothing when none fits.
    static std::optional<QDateTime> dateFromTesselString(const QString &text);

private:
    void registerVpnApiFor(const QString &deviceID, RegisterVpnApiCompletion completion);
    NQIdentityServer() = default;
};
