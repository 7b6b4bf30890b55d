#include "shell/DefaultShellEngine.h"

#include "backend/NQIdentityServer.h"
#include "backend/NetworkUtils.h"
#include "extension/BrowserExtensionApi.h"
#include "foundation/LocalString.h"
#include "vpn/NQVPNManager.h"

void DefaultShellEngine::labelsettings(const QString &labelID, const QString &deviceId, const QString &key, int mark,
                                       const QString &languageCode, const QString &appVersion,
                                       LabelCompletion completion)
{
    NQIdentityServer::sharedManager().labelsettingsForLabelID(labelID, deviceId, key, mark, languageCode, appVersion,
                                                              std::move(completion));
}

void DefaultShellEngine::fetchBrowserExtensionConfig(const QString &labelID, const QString &browser,
                                                     ExtensionCompletion completion)
{
    NQIdentityServer::sharedManager().fetchBrowserExtensionConfigForLabelID(labelID, browser, std::move(completion));
}

void DefaultShellEngine::registerVpn(const QString &labelID, const QString &deviceID, const QString &key,
                                     int deviceType, bool keyFromStore, RegisterCompletion completion)
{
    NQIdentityServer::sharedManager().registerVpnForLabelID(
        labelID, deviceID, key, static_cast<quint64>(deviceType), keyFromStore,
        [completion = std::move(completion)](const NQIdentityServer::RegisterVpnResponse &response,
                                             const NQErrorOpt &error) {
            completion(response.success, response.username, response.password, error);
        });
}

void DefaultShellEngine::checkIsInternetAvailable(std::function<void(const QString &error)> completion)
{
    NetworkUtils::checkIsInternetAvailableWithCompletion(std::move(completion));
}

QString DefaultShellEngine::appLanguageCode()
{
    return LocalString::appLanguageCode();
}

QString DefaultShellEngine::localizedString(const QString &key)
{
    return LocalString::forKey(key);
}

void DefaultShellEngine::stopVPNConnection()
{
    NQVPNManager::sharedManager().stopVPNConnection();
}

void DefaultShellEngine::startExtensionServer()
{
    BrowserExtensionApi::defaultInstance().startServer();
}

void DefaultShellEngine::flushExtensionStorage()
{
    BrowserExtensionApi::defaultInstance().storage().flush();
}
