// The VPN account requests of NQIdentityServer.
#include "backend/BackendRequest.h"
#include "backend/NQIdentityServer.h"
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/Log.h"

#include <QJsonObject>
#include <QRegularExpression>

namespace {

constexpr int kResponseUnknownCode = -21;
constexpr quint64 kDesktopDeviceType = 2;

// An integer read the way the platform's integerValue reads it: numbers are truncated,
// booleans are 0/1, text gives its leading integer.
qint64 integerValue(const QJsonValue &value)
{
    if (value.isBool())
        return value.toBool() ? 1 : 0;
    if (value.isDouble())
        return static_cast<qint64>(value.toDouble());
    if (value.isString()) {
        static const QRegularExpression leading(QStringLiteral("^\\s*([+-]?\\d+)"));
        const auto match = leading.match(value.toString());
        return match.hasMatch() ? match.captured(1).toLongLong() : 0;
    }
    return 0;
}

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
        if (result.error) {
            completion({}, result.error);
            return;
        }
        if (!result.json.isObject()) {
            const NQError error =
                BackendRequest::identityError(kResponseUnknownCode, QStringLiteral("Response unknown"));
            NQLog::line(QStringLiteral("Request: registerVpn FAILED with error: '%1'.").arg(error.debugDescription()));
            completion({}, error);
            return;
        }
        const QJsonObject object = result.json.object();
        // JSON null counts as absent; each absent key is logged and reading goes on.
        const auto present = [&](const QString &name) {
            const QJsonValue value = object.value(name);
            if (!value.isUndefined() && !value.isNull())
                return true;
            NQLog::line(failureLine.arg(ErrorIdentity::errorForMissingKey(name).debugDescription()));
            return false;
        };
        const auto text = [&](const QString &name) {
            if (!present(name))
                return QString();
            const QJsonValue value = object.value(name);
            return value.isString() ? value.toString() : value.toVariant().toString();
        };
        RegisterVpnResponse response;
        if (present(QStringLiteral("success")))
            response.success = integerValue(object.value(QStringLiteral("success"))) != 0;
        response.message = text(QStringLiteral("message"));
        response.username = text(QStringLiteral("username"));
        response.password = text(QStringLiteral("password"));
        completion(response, std::nullopt);
    });
}

void NQIdentityServer::registerVpnApi(RegisterVpnApiCompletion completion)
{
    // A key the store has never been given is sent as an empty segment.
    QString key = AppStorageManager::sharedManager().accountKey().toUpper();
    if (key.isNull())
        key = QLatin1String("");
    registerVpnForLabelID(
        AppConfig::labelID(), AppConfig::deviceUniqueID(), key, kDesktopDeviceType, false,
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
