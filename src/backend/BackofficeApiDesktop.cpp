#include "backend/BackofficeApiDesktop.h"

#include "backend/BackendRequest.h"
#include "foundation/AppConfig.h"

#include <QJsonObject>

namespace {

// Touched on the main thread only: set by the caller, cleared by the completion.
bool requestInFlight = false;

QString stringValue(const QJsonObject &object, const char *key)
{
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? value.toString() : QString();
}

} // namespace

bool BackofficeApiDesktop::isRequestInFlight()
{
    return requestInFlight;
}

void BackofficeApiDesktop::checkMyLocation(LocationCompletion completion)
{
    if (requestInFlight) {
        completion({}, {}, {}, QStringLiteral("Already called"));
        return;
    }
    requestInFlight = true;
    BackendRequest::Options options; // this lookup writes no request log lines
    options.log.deserializeError = QStringLiteral("Deserialize response failed.");
    const QString host = AppConfig::hostUrl();
    options.url = QStringLiteral("%1/api1/helper/iptocountry").arg(host.isNull() ? QStringLiteral("(null)") : host);
    BackendRequest::send(std::move(options), [completion](const BackendRequest::Result &result) {
        requestInFlight = false;
        if (result.error) {
            completion({}, {}, {}, result.error->localizedDescription());
            return;
        }
        const QJsonObject object = result.json.object();
        const QString ip = stringValue(object, "ip");
        const QString country = stringValue(object, "country");
        const QString countryName = stringValue(object, "countryName");
        if (ip.isNull() || country.isNull()) {
            const auto error = BackendRequest::identityError(-1, QStringLiteral("Parse response failed."));
            completion(ip, country, countryName, error.localizedDescription());
            return;
        }
        completion(ip, country, countryName, {});
    });
}
