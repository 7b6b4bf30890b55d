// NQVPNManager: the server-list and profile requests.
#include "vpn/NQVPNManager.h"

#include "backend/BackendRequest.h"
#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/NQConfig.h"
#include "vpn/VpnAnswers.h"

namespace {
// This desktop client's device type in the backend's numbering.
constexpr int kDeviceType = 2;

BackendRequest::Options getSpec(const QString &url, BackendRequest::LogLines log)
{
    BackendRequest::Options options;
    options.log = std::move(log);
    options.url = url;
    options.method = "GET";
    options.cachePolicy = BackendRequest::CachePolicy::UseProtocolCachePolicy;
    // The configured time-out of every backend request (60 s; shorter where tests ask for it).
    options.timeoutSeconds = NQConfig::shared().appHttpDefaultTimeout;
    return options;
}

// The backend client's usual lines, named after this request and marked as this class's, as
// the profile request's are.
BackendRequest::LogLines countriesLogLines()
{
    BackendRequest::LogLines log = BackendRequest::LogLines::named(QStringLiteral("getCountries"));
    for (QString *line : {&log.start, &log.endpoint, &log.failure, &log.success, &log.deserialized, &log.finish})
        line->prepend(QStringLiteral("|NQVPNManager| "));
    return log;
}
} // namespace

QString NQVPNManager::requestUrl(const QString &endpoint, const QString &deviceID, const QString &countryIdSegment)
{
    const QString keyFromStore =
        AppStorageManager::sharedManager().keyFromStoreFlag() ? QStringLiteral("true") : QStringLiteral("false");
    return QStringLiteral("%1/api1/vpnapi/%2/%3/KEY/%4/%5")
               .arg(AppConfig::hostUrl(), endpoint, AppConfig::labelID(), deviceID, AppConfig::appVersion()) +
           countryIdSegment +
           QStringLiteral("?deviceType=%1&keyFromStore=%2&engine=1").arg(kDeviceType).arg(keyFromStore);
}

void NQVPNManager::getCountries(CountriesCompletion completion)
{
    // The identifier may still wait for the keyring's unlock prompt: not on the caller's thread.
    AppConfig::deviceUniqueID([this, alive = std::weak_ptr<char>(m_alive),
                               completion = std::move(completion)](const QString &deviceID) mutable {
        BackendRequest::send(getSpec(requestUrl(QStringLiteral("serverlist"), deviceID, {}), countriesLogLines()),
                             [this, alive, completion = std::move(completion)](const BackendRequest::Result &result) {
                                 auto [countries, error] = VpnAnswers::countries(result);
                                 // Replaced even on failure: an earlier good list does not outlive a failed refresh.
                                 if (!alive.expired()) {
                                     m_availableCountries = countries;
                                     notificationAppReady();
                                     notificationClustersLoaded(m_availableCountries);
                                 }
                                 if (completion)
                                     completion(countries, error);
                             });
    });
}

void NQVPNManager::getCountryVPNConfig(qint64 countryId, ConfigCompletion completion)
{
    AppConfig::deviceUniqueID([countryId, completion = std::move(completion)](const QString &deviceID) mutable {
        BackendRequest::LogLines log;
        log.start = QStringLiteral("|NQVPNManager| Request getCountryVPNConfig");
        log.endpoint = QStringLiteral("|NQVPNManager| Request getCountryVPNConfig. endpointUrl = '%1'");
        log.failure = QStringLiteral("|NQVPNManager| Request getCountryVPNConfig. failed = '%1'");
        log.deserializeError = QStringLiteral("Deserialize response body failed for request 'getCountryVPNConfig'.");
        const QString url = requestUrl(QStringLiteral("serverovpn"), deviceID, QStringLiteral("/%1").arg(countryId));
        BackendRequest::send(getSpec(url, log),
                             [completion = std::move(completion)](const BackendRequest::Result &result) {
                                 const VpnAnswers::CountryVPNConfig answer = VpnAnswers::countryVPNConfig(result);
                                 completion(answer.ovpn, answer.serverAddress, answer.error);
                             });
    });
}
