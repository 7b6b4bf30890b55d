#pragma once

#include "foundation/NQError.h"

#include <QString>

#include <functional>

// The requests the shell makes of the backend client, the tunnel and the extension bridge.
// The running program uses DefaultShellEngine, which forwards to their singletons; tests of
// the shell's own sequences pass another engine through the constructors.
//
// Every completion is called exactly once, on the main thread.
class ShellEngine {
public:
    virtual ~ShellEngine() = default;

    // Label settings: support, post-install and post-uninstall links (null where absent).
    using LabelCompletion = std::function<void(const QString &support, const QString &postInstall,
                                               const QString &postUninstall, const NQErrorOpt &error)>;
    virtual void labelsettings(const QString &labelID, const QString &deviceId, const QString &key, int mark,
                               const QString &languageCode, const QString &appVersion, LabelCompletion completion) = 0;

    using ExtensionCompletion = std::function<void(bool success, const QString &link, const NQErrorOpt &error)>;
    virtual void fetchBrowserExtensionConfig(const QString &labelID, const QString &browser,
                                             ExtensionCompletion completion) = 0;

    using RegisterCompletion =
        std::function<void(bool success, const QString &username, const QString &password, const NQErrorOpt &error)>;
    virtual void registerVpn(const QString &labelID, const QString &deviceID, const QString &key, int deviceType,
                             bool keyFromStore, RegisterCompletion completion) = 0;

    // Null error text when the backend is reachable, "No internet" otherwise.
    virtual void checkIsInternetAvailable(std::function<void(const QString &error)> completion) = 0;

    // The interface language code sent with the label settings.
    virtual QString appLanguageCode() = 0;
    // The text for `key` in the interface language.
    virtual QString localizedString(const QString &key) = 0;

    virtual void stopVPNConnection() = 0;
    virtual void startExtensionServer() = 0;
    // Writes what the extension bridge still holds in memory (blocked-domain counts); at quit.
    virtual void flushExtensionStorage() {}
};
