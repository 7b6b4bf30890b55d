// Backend answers as the client reads them: the body through the common JSON step, then each
// reader of the backend client (label settings, extension link, VPN account, location), and
// the body as a backend date.
#include "FuzzInput.h"
#include "backend/BackendAnswers.h"

#include <QJsonObject>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzInput::silenceLogs();
    const QByteArray body = FuzzInput::bytes(data, size);
    const BackendRequest::Result result = BackendRequest::resultForBody(body, QStringLiteral("fuzz"));
    FuzzInput::check(result.parsed != result.error.has_value(), "parsed body with an error, or neither");
    const bool object = result.parsed && result.json.isObject();
    const QJsonObject json = result.json.object();

    const auto settings = BackendAnswers::labelSettings(result);
    FuzzInput::check(settings.error.has_value() == !object, "label settings error");

    const auto link = BackendAnswers::extensionLink(result);
    FuzzInput::check(link.error.has_value() == (!result.parsed || !json.value(QLatin1String("url")).isString()),
                     "extension link error");

    const auto account = BackendAnswers::registerVpn(result, QStringLiteral("fuzz %1"));
    FuzzInput::check(account.error.has_value() == !object, "account error");
    FuzzInput::check(!account.error || account.response.username.isNull(), "account values beside an error");

    const auto location = BackendAnswers::location(result);
    FuzzInput::check(location.error.isNull() == (!location.ip.isNull() && !location.country.isNull()),
                     "location error");

    if (const auto date = NQIdentityServer::dateFromTesselString(QString::fromUtf8(body)))
        FuzzInput::check(date->isValid(), "an invalid date was accepted");
    return 0;
}
