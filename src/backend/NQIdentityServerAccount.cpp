// The VPN account requests of NQIdentityServer.
#include "backend/BackendAnswers.h"
#include "backend/BackendRequest.h"
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"

namespace {

constexpr quint64 kDesktopDeviceType = 2;

} // namespace

void NQIdentityServer::registerVpnForLabelID(const QString &labelID, const QString &deviceID, const QString &key,
                                             quint64 deviceType, bool keyFromStore, RegisterVpnCompletion completion)
{
    const auto slot = [](const QString &value) { return value.isNull() ? QStringLiteral("(null)") : value; };
    BackendRequest::Options options;
    options.log = BackendRequest::LogLines::named(QStringLiteral("registerVpn"));
    options.url = QStringLiteral("%1/api1/vpnapi/create/%2/%3/%4?deviceType=%5&keyFromStore=%6&engine=1")
                      .arg(slot(AppConfig::hostUrl()), slot(labelID), slot(key), slot(deviceID))
                      .arg(deviceType)
                      .arg(keyFromStore ? QStringLiteral("true") : QStringLiteral("false"));
    options.cachePolicy = BackendRequest::CachePolicy::ReloadIgnoringLocalCacheData;
    const QString failureLine = options.log.failure;
    BackendRequest::send(std::move(options), [completion, failureLine](const BackendRequest::Result &result) {
        const BackendAnswers::RegisterVpn answer = BackendAnswers::registerVpn(result, failureLine);
        completion(answer.response, answer.error);
    });
}

void NQIdentityServer::registerVpnApi(RegisterVpnApiCompletion completion)
{
    // The identifier may still wait for the keyring's unlock prompt: not on the caller's thread.
    AppConfig::deviceUniqueID([completion = std::move(completion)](const QString &deviceID) mutable {
        sharedManager().registerVpnApiFor(deviceID, std::move(completion));
    });
}

void NQIdentityServer::registerVpnApiFor(const QString &deviceID, RegisterVpnApiCompletion completion)
{
    // A key the store has never been given is sent as an empty segment.
    QString key = AppStorageManager::sharedManager().accountKey().toUpper();
    if (key.isNull())
        key = QLatin1String("");
    registerVpnForLabelID(
        AppConfig::labelID(), deviceID, key, kDesktopDeviceType, false,
        [completion](const RegisterVpnResponse &response, const NQErrorOpt &error) {
            if (error) {
                NQLog::line(
                    QStringLiteral("|IdentityService| registerVpnApi Error: %1").arg(error->debugDescription()));
                completion({}, {}, error->localizedDescription());
                return;
            }
            NQLog::line(QStringLiteral("|IdentityService| registerVpnApi Success"));
            if (!response.username.isNull() && !response.password.isNull())
                NQLog::line(QStringLiteral("|IdentityService| registerVpnApi response credentials: Username length: %1 "
                                           "Password length: %2")
                                .arg(response.username.size())
                                .arg(response.password.size()));
            else
                NQLog::line(QStringLiteral("|IdentityService| registerVpnApi response credentials FAILED"));
            // Stored in every success case: a value the backend left out clears its item.
            AppStorageManager::sharedManager().storeVPNCredentials(response.username, response.password);
            completion(response.username, response.password, {});
        });
}
