#include "backend/BackendAnswers.h"

#include "foundation/ErrorIdentity.h"
#include "foundation/Log.h"

#include <QJsonObject>
#include <QRegularExpression>

#include <cmath>
#include <limits>

namespace {

constexpr int kResponseUnknownCode = -21;

// A string under `key`; anything else (absent, null, a number) counts as absent.
QString stringValue(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    return value.isString() ? value.toString() : QString();
}

// An integer read the way the platform's integerValue reads it: numbers are truncated,
// booleans are 0/1, text gives its leading integer.
qint64 integerValue(const QJsonValue &value)
{
    if (value.isBool())
        return value.toBool() ? 1 : 0;
    if (value.isDouble()) {
        // Clamped first: converting an out-of-range real is undefined behaviour.
        const double number = value.toDouble();
        if (std::isnan(number))
            return 0;
        if (number >= 9.2e18 || number <= -9.2e18)
            return number > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
        return static_cast<qint64>(number);
    }
    if (value.isString()) {
        static const QRegularExpression leading(QStringLiteral("^\\s*([+-]?\\d+)"));
        const auto match = leading.match(value.toString());
        return match.hasMatch() ? match.captured(1).toLongLong() : 0;
    }
    return 0;
}

} // namespace

namespace BackendAnswers {

LabelSettings labelSettings(const BackendRequest::Result &result)
{
    if (result.error)
        return {{}, {}, {}, result.error};
    // An array where the object belongs would read as "no links" and fail unnoticed.
    if (!result.json.isObject())
        return {{},
                {},
                {},
                BackendRequest::identityError(
                    -1, QStringLiteral("Deserialize response body failed for request 'labelsettings'."))};
    const QJsonObject object = result.json.object();
    return {stringValue(object, QStringLiteral("support")), stringValue(object, QStringLiteral("linkafterinstall")),
            stringValue(object, QStringLiteral("linkafteruninstall")), std::nullopt};
}

ExtensionLink extensionLink(const BackendRequest::Result &result)
{
    if (result.error)
        return {false, {}, result.error};
    const QJsonObject object = result.json.object();
    const bool success = object.value(QStringLiteral("success")).toBool();
    const QString url = stringValue(object, QStringLiteral("url"));
    if (url.isNull())
        return {success,
                {},
                BackendRequest::identityError(
                    -1, QStringLiteral(
                            "Deserialize key 'url' from response body failed for request 'BrowseConfiguration'."))};
    return {success, url, std::nullopt};
}

RegisterVpn registerVpn(const BackendRequest::Result &result, const QString &failureLine)
{
    if (result.error)
        return {{}, result.error};
    if (!result.json.isObject()) {
        const NQError error = BackendRequest::identityError(kResponseUnknownCode, QStringLiteral("Response unknown"));
        NQLog::line(QStringLiteral("Request: registerVpn FAILED with error: '%1'.").arg(error.debugDescription()));
        return {{}, error};
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
    RegisterVpn answer;
    if (present(QStringLiteral("success")))
        answer.response.success = integerValue(object.value(QStringLiteral("success"))) != 0;
    answer.response.message = text(QStringLiteral("message"));
    answer.response.username = text(QStringLiteral("username"));
    answer.response.password = text(QStringLiteral("password"));
    return answer;
}

bool installEventSent(const BackendRequest::Result &result)
{
    if (result.error)
        return false;
    const QJsonValue sent = result.json.object().value(QStringLiteral("sent"));
    if (sent.isDouble())
        return sent.toDouble() != 0; // NaN cannot come out of JSON text
    return sent.toBool();
}

Location location(const BackendRequest::Result &result)
{
    if (result.error)
        return {{}, {}, {}, result.error->localizedDescription()};
    const QJsonObject object = result.json.object();
    Location answer{stringValue(object, QStringLiteral("ip")),
                    stringValue(object, QStringLiteral("country")),
                    stringValue(object, QStringLiteral("countryName")),
                    {}};
    if (answer.ip.isNull() || answer.country.isNull())
        answer.error =
            BackendRequest::identityError(-1, QStringLiteral("Parse response failed.")).localizedDescription();
    return answer;
}

} // namespace BackendAnswers
