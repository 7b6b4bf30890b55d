// NQVPNManager: the server-list and profile requests.
#include "vpn/NQVPNManager.h"

#include "backend/BackendRequest.h"
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/ErrorIdentity.h"

#include <QJsonArray>
#include <QJsonObject>

namespace {
// This desktop client's device type in the backend's numbering.
constexpr int kDeviceType = 2;
// The profile and server-list requests wait this long, like every backend request.
constexpr double kRequestTimeoutSeconds = 60;

NQError deserializeError(const QString &requestName, const BackendRequest::Result &result)
{
    QVariantMap info{{QLatin1String(NQError::kLocalizedDescriptionKey),
                      QStringLiteral("Deserialize response body failed for request '%1'.").arg(requestName)}};
    // JSON of the wrong shape has no parser error to pass on.
    if (!result.parsed)
        info.insert(QStringLiteral("NSUnderlyingError"),
                    QVariant::fromValue(BackendRequest::jsonParseError(result.parseError)));
    return NQError(QLatin1String(NQVPNManager::kErrorDomain), NQVPNManager::kDeserializeErrorCode, info);
}

BackendRequest::Options getSpec(const QString &url, BackendRequest::LogLines log)
{
    BackendRequest::Options options;
    options.log = std::move(log);
    options.url = url;
    options.method = "GET";
    options.cachePolicy = BackendRequest::CachePolicy::UseProtocolCachePolicy;
    options.timeoutSeconds = kRequestTimeoutSeconds;
    return options;
}
} // namespace

QString NQVPNManager::requestUrl(const QString &endpoint, const QString &countryIdSegment)
{
    const QString keyFromStore =
        AppStorageManager::sharedManager().keyFromStoreFlag() ? QStringLiteral("true") : QStringLiteral("false");
    return QStringLiteral("%1/api1/vpnapi/%2/%3/KEY/%4/%5")
               .arg(AppConfig::hostUrl(), endpoint, AppConfig::labelID(), AppConfig::deviceUniqueID(),
                    AppConfig::appVersion()) +
           countryIdSegment +
           QStringLiteral("?deviceType=%1&keyFromStore=%2&engine=1").arg(kDeviceType).arg(keyFromStore);
}

void NQVPNManager::getCountries(CountriesCompletion completion)
{
    // This request logs nothing of its own.
    BackendRequest::LogLines silent;
    silent.deserializeError = QStringLiteral("Deserialize response body failed for request 'getCountries'.");
    BackendRequest::send(getSpec(requestUrl(QStringLiteral("serverlist"), {}), silent),
                         [this, alive = std::weak_ptr<char>(m_alive),
                          completion = std::move(completion)](const BackendRequest::Result &result) {
                             QList<NQVPNCountry> countries;
                             NQErrorOpt error;
                             if (result.transportFailed)
                                 error = result.error;
                             else if (result.parsed && result.json.isArray())
                                 for (const QJsonValue &element : result.json.array())
                                     countries.append(
                                         NQVPNCountry::initWithDictionary(element.toObject().toVariantMap()));
                             else
                                 error = deserializeError(QStringLiteral("getCountries"), result);
                             // Replaced even on failure: an earlier good list does not outlive a failed refresh.
                             if (!alive.expired()) {
                                 m_availableCountries = countries;
                                 notificationAppReady();
                                 notificationClustersLoaded(m_availableCountries);
                             }
                             if (completion)
                                 completion(countries, error);
                         });
}

void NQVPNManager::getCountryVPNConfig(qint64 countryId, ConfigCompletion completion)
{
    BackendRequest::LogLines log;
    log.start = QStringLiteral("|NQVPNManager| Request getCountryVPNConfig");
    log.endpoint = QStringLiteral("|NQVPNManager| Request getCountryVPNConfig. endpointUrl = '%1'");
    log.failure = QStringLiteral("|NQVPNManager| Request getCountryVPNConfig. failed = '%1'");
    log.deserializeError = QStringLiteral("Deserialize response body failed for request 'getCountryVPNConfig'.");
    const QString url = requestUrl(QStringLiteral("serverovpn"), QStringLiteral("/%1").arg(countryId));
    BackendRequest::send(getSpec(url, log), [completion = std::move(completion)](const BackendRequest::Result &result) {
        if (result.transportFailed) {
            completion({}, {}, result.error);
            return;
        }
        if (!result.parsed || !result.json.isObject()) {
            completion({}, {}, deserializeError(QStringLiteral("getCountryVPNConfig"), result));
            return;
        }
        const QJsonObject body = result.json.object();
        QString values[2];
        NQErrorOpt error;
        const QString keys[] = {QStringLiteral("ovpn"), QStringLiteral("serverAddress"), QStringLiteral("serverPort")};
        for (int i = 0; i < 3; ++i) {
            const QJsonValue value = body.value(keys[i]);
            // A later missing key replaces the error of an earlier one.
            if (value.isUndefined() || value.isNull())
                error = ErrorIdentity::errorForMissingKey(keys[i]);
            else if (i < 2)
                values[i] = value.isString() ? value.toString() : value.toVariant().toString();
        }
        completion(values[0], values[1], error);
    });
}
