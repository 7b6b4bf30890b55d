#pragma once

#include "shell/ShellEngine.h"

// The engine of the running program: the backend client, the tunnel manager and the
// extension bridge singletons, as they are.
class DefaultShellEngine : public ShellEngine {
public:
    void labelsettings(const QString &labelID, const QString &deviceId, const QString &key, int mark,
                       const QString &languageCode, const QString &appVersion, LabelCompletion completion) override;
    void fetchBrowserExtensionConfig(const QString &labelID, const QString &browser,
                                     ExtensionCompletion completion) override;
    void registerVpn(const QString &labelID, const QString &deviceID, const QString &key, int deviceType,
                     bool keyFromStore, RegisterCompletion completion) override;
    void checkIsInternetAvailable(std::function<void(const QString &error)> completion) override;
    QString appLanguageCode() override;
    QString localizedString(const QString &key) override;
    void stopVPNConnection() override;
    void startExtensionServer() override;
    void flushExtensionStorage() override;
};
