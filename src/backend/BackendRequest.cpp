#include "backend/BackendRequest.h"

#include "backend/URLSessionError.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/NQConfig.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QStringDecoder>
#include <QTimer>

#include <cmath>
#include <memory>

namespace {

void logLine(const QString &pattern, const QString &a = {}, const QString &b = {})
{
    if (pattern.isEmpty())
        return;
    QString text = pattern;
    if (text.contains(QLatin1String("%2")))
        text = text.arg(a, b);
    else if (text.contains(QLatin1String("%1")))
        text = text.arg(a);
    NQLog::line(text);
}

// The state of one request in flight; shared by the reply's and the timer's handlers.
struct Job {
    BackendRequest::Options options;
    BackendRequest::Completion completion;
    bool timedOut = false;
};

void finish(const std::shared_ptr<Job> &job, QNetworkReply *reply)
{
    const auto &log = job->options.log;
    if (NQErrorOpt transportError = URLSessionError::fromReply(*reply, job->timedOut)) {
        BackendRequest::Result result;
        result.error = std::move(transportError);
        result.transportFailed = true;
        logLine(log.failure, result.error->debugDescription());
        logLine(log.finish, BackendRequest::bodyDescription({}, false));
        job->completion(result);
        return;
    }
    BackendRequest::Result result = BackendRequest::resultForBody(reply->readAll(), log.deserializeError);
    result.httpStatus = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    logLine(log.success);
    if (result.parsed)
        logLine(log.deserialized);
    logLine(log.finish, BackendRequest::bodyDescription(result.body, true));
    job->completion(result);
}

void start(const std::shared_ptr<Job> &job)
{
    const auto &options = job->options;
    logLine(options.log.start);
    QByteArray payload;
    if (options.jsonBody) {
        logLine(options.log.endpoint, options.url, BackendRequest::dictionaryDescription(*options.jsonBody));
        const auto serialized = BackendRequest::serializeJson(*options.jsonBody);
        if (!serialized) {
            BackendRequest::Result result;
            result.error = BackendRequest::identityError(-1, options.log.serializeError);
            logLine(options.log.failure, result.error->debugDescription());
            // Never from inside send(): the caller may not be ready for its own completion yet.
            MainQueue::async([job, result] { job->completion(result); });
            return;
        }
        payload = *serialized;
    } else {
        logLine(options.log.endpoint, options.url);
    }

    QNetworkRequest request{QUrl(options.url, QUrl::TolerantMode)};
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         options.cachePolicy == BackendRequest::CachePolicy::ReloadIgnoringLocalCacheData
                             ? QNetworkRequest::AlwaysNetwork
                             : QNetworkRequest::PreferNetwork);
    for (const auto &[name, value] : options.headers)
        request.setRawHeader(name, value);

    QNetworkReply *reply = BackendRequest::sharedSession().sendCustomRequest(request, options.method, payload);
    // Our own timer rather than Qt's transfer time-out: it ends the request after the same
    // total time whatever the server trickles, and tells a time-out from a cancel.
    auto *timer = new QTimer(reply);
    timer->setSingleShot(true);
    const double seconds =
        options.timeoutSeconds > 0 ? options.timeoutSeconds : NQConfig::shared().appHttpDefaultTimeout;
    timer->start(static_cast<int>(std::lround(seconds * 1000)));
    QObject::connect(timer, &QTimer::timeout, reply, [job, reply] {
        job->timedOut = true;
        reply->abort();
    });
    QObject::connect(reply, &QNetworkReply::finished, reply, [job, reply] {
        reply->deleteLater();
        finish(job, reply);
    });
}

} // namespace

BackendRequest::LogLines BackendRequest::LogLines::named(const QString &name)
{
    const QString request = QStringLiteral("Request ") + name;
    return {request,
            request + QStringLiteral(". endpointUrl = '%1'"),
            request + QStringLiteral(". failed = '%1'"),
            request + QStringLiteral(". request success"),
            request + QStringLiteral(". request success. response body deserialized"),
            QStringLiteral("Deserialize response body failed for request '%1'.").arg(name),
            QStringLiteral("Cannot serialze request body for request '%1'.").arg(name),
            request + QStringLiteral(". request finish. response body = %1")};
}

void BackendRequest::send(Options options, Completion completion)
{
    auto job = std::make_shared<Job>(Job{std::move(options), std::move(completion)});
    if (MainQueue::isMainThread())
        start(job);
    else
        MainQueue::async([job] { start(job); });
}

BackendRequest::Result BackendRequest::resultForBody(const QByteArray &body, const QString &deserializeError)
{
    Result result;
    result.body = body;
    result.json = QJsonDocument::fromJson(result.body, &result.parseError);
    result.parsed = result.parseError.error == QJsonParseError::NoError && !result.json.isNull();
    if (!result.parsed) {
        NQError error = identityError(-1, deserializeError);
        QVariantMap info = error.userInfo();
        info.insert(QStringLiteral("NSUnderlyingError"), QVariant::fromValue(jsonParseError(result.parseError)));
        result.error = NQError(error.domain(), error.code(), info);
    }
    return result;
}

QNetworkAccessManager &BackendRequest::sharedSession()
{
    // Owned by the application object so it goes away before the event loop does.
    static QPointer<QNetworkAccessManager> session;
    if (!session)
        session = new QNetworkAccessManager(QCoreApplication::instance());
    return *session;
}

NQError BackendRequest::jsonParseError(const QJsonParseError &parseError)
{
    const QString text = parseError.error == QJsonParseError::NoError
                             ? QStringLiteral("The data couldn’t be read because it isn’t in the correct format.")
                             : parseError.errorString();
    return NQError(QStringLiteral("NSCocoaErrorDomain"), 3840,
                   {{QLatin1String(NQError::kLocalizedDescriptionKey), text},
                    {QStringLiteral("NSJSONSerializationErrorIndex"), parseError.offset}});
}

NQError BackendRequest::identityError(int code, const QString &message)
{
    return NQError(QLatin1String(ErrorIdentity::kBackendErrorDomain), code,
                   {{QLatin1String(NQError::kLocalizedDescriptionKey), message}});
}

QString BackendRequest::bodyDescription(const QByteArray &body, bool hasBody)
{
    if (!hasBody)
        return QStringLiteral("(null)");
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder.decode(body);
    return decoder.hasError() ? QStringLiteral("(null)") : text;
}
