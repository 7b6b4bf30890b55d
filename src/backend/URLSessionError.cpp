#include "backend/URLSessionError.h"

#include <QNetworkReply>

namespace URLSessionError {

namespace {

QString descriptionFor(int code)
{
    switch (code) {
    case kTimedOut:
        return QStringLiteral("The request timed out.");
    case kCannotConnectToHost:
        return QStringLiteral("Could not connect to the server.");
    case -1003:
        return QStringLiteral("A server with the specified hostname could not be found.");
    case kNetworkConnectionLost:
        return QStringLiteral("The network connection was lost.");
    case -1009:
        return QStringLiteral("The Internet connection appears to be offline.");
    case -1200:
        return QStringLiteral("An SSL error has occurred and a secure connection to the server cannot be made.");
    case -1002:
        return QStringLiteral("unsupported URL");
    case -1017:
        return QStringLiteral("cannot parse response");
    case -999:
        return QStringLiteral("cancelled");
    default:
        return QStringLiteral("An unknown error occurred.");
    }
}

int codeFor(QNetworkReply::NetworkError error)
{
    switch (error) {
    case QNetworkReply::TimeoutError:
        return kTimedOut;
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::ProxyConnectionRefusedError:
        return kCannotConnectToHost;
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::ProxyNotFoundError:
        return -1003;
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::ProxyConnectionClosedError:
        return kNetworkConnectionLost;
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::BackgroundRequestNotAllowedError:
        return -1009;
    case QNetworkReply::SslHandshakeFailedError:
        return -1200;
    case QNetworkReply::ProtocolUnknownError:
        return -1002;
    case QNetworkReply::ProtocolFailure:
        return -1017;
    case QNetworkReply::OperationCanceledError:
        return -999;
    default:
        return -1;
    }
}

} // namespace

NQError make(int code, const QString &url)
{
    return NQError(QLatin1String(kDomain), code,
                   {{QLatin1String(NQError::kLocalizedDescriptionKey), descriptionFor(code)},
                    {QLatin1String(kFailingURLStringKey), url}});
}

NQErrorOpt fromReply(const QNetworkReply &reply, bool timedOut)
{
    const QString url = reply.request().url().toString();
    if (timedOut)
        return make(kTimedOut, url);
    if (reply.error() == QNetworkReply::NoError)
        return std::nullopt;
    // Qt reports 4xx/5xx as errors too; for us a status line means the server answered.
    // A connection that drops after the status line is still a lost connection.
    const bool answered = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
    const bool belowHttp =
        reply.error() < QNetworkReply::ContentAccessDenied || reply.error() == QNetworkReply::ProtocolFailure;
    if (answered && !belowHttp)
        return std::nullopt;
    if (!answered && !belowHttp)
        return make(-1, url);
    return make(codeFor(reply.error()), url);
}

} // namespace URLSessionError
