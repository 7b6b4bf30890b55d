#include "backend/BackofficeApiDesktop.h"

#include "backend/BackendAnswers.h"
#include "backend/BackendRequest.h"
#include "foundation/AppConfig.h"

namespace {

// Touched on the main thread only: set by the caller, cleared by the completion.
bool requestInFlight = false;

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
        const BackendAnswers::Location answer = BackendAnswers::location(result);
        completion(answer.ip, answer.country, answer.countryName, answer.error);
    });
}
