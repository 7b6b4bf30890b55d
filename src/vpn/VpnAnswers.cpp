#include "vpn/VpnAnswers.h"

#include "foundation/ErrorIdentity.h"
#include "vpn/NQVPNManager.h"

#include <QJsonArray>
#include <QJsonObject>

namespace {
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
} // namespace

namespace VpnAnswers {

Countries countries(const BackendRequest::Result &result)
{
    Countries answer;
    if (result.transportFailed)
        answer.error = result.error;
    else if (result.parsed && result.json.isArray())
        for (const QJsonValue &element : result.json.array())
            answer.countries.append(NQVPNCountry::initWithDictionary(element.toObject().toVariantMap()));
    else
        answer.error = deserializeError(QStringLiteral("getCountries"), result);
    return answer;
}

CountryVPNConfig countryVPNConfig(const BackendRequest::Result &result)
{
    if (result.transportFailed)
        return {{}, {}, result.error};
    if (!result.parsed || !result.json.isObject())
        return {{}, {}, deserializeError(QStringLiteral("getCountryVPNConfig"), result)};
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
    return {values[0], values[1], error};
}

} // namespace VpnAnswers
