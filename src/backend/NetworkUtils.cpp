#include "backend/NetworkUtils.h"

#include "backend/URLSessionError.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/NQConfig.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

#include <cmath>
#include <mutex>

namespace {

std::mutex addressMutex;
QString addressOverride;

int timeoutMs()
{
    return static_cast<int>(std::lround(NQConfig::shared().appHttpDefaultTimeout * 1000));
}

// Starts a plain GET of the reachability address on `session`; `done` gets the transport
// error (or nothing) once. The reply is aborted after the time-out.
void fetch(QNetworkAccessManager &session, std::function<void(const NQErrorOpt &)> done)
{
    QNetworkReply *reply = session.get(QNetworkRequest(QUrl(NetworkUtils::RequestAddress())));
    auto timedOut = std::make_shared<bool>(false);
    auto *timer = new QTimer(reply);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, reply, [reply, timedOut] {
        *timedOut = true;
        reply->abort();
    });
    timer->start(timeoutMs());
    QObject::connect(reply, &QNetworkReply::finished, reply, [reply, timedOut, done] {
        reply->deleteLater();
        done(URLSessionError::fromReply(*reply, *timedOut));
    });
}

} // namespace

QString NetworkUtils::RequestAddress()
{
    static const QString builtIn = NQConfig::shared().identityServiceAPI;
    std::lock_guard lock(addressMutex);
    return addressOverride.isNull() ? builtIn : addressOverride;
}

void NetworkUtils::setRequestAddressForTesting(const QString &address)
{
    std::lock_guard lock(addressMutex);
    addressOverride = address;
}

bool NetworkUtils::checkIsInternetAvailable()
{
    // A session and an event loop of this thread, so that the call works from any thread and
    // never re-enters the main thread's shared session.
    QNetworkAccessManager session;
    QEventLoop loop;
    bool online = false;
    fetch(session, [&](const NQErrorOpt &error) {
        online = !error;
        loop.quit();
    });
    loop.exec(QEventLoop::ExcludeUserInputEvents);
    NQLog::line(online ? QStringLiteral("|NetworkUtils| Device Network Status: ONLINE")
                       : QStringLiteral("|NetworkUtils| Device Network Status: OFFLINE"));
    return online;
}

void NetworkUtils::checkIsInternetAvailableWithCompletion(std::function<void(const QString &error)> completion)
{
    MainQueue::async([completion] {
        // A session per check, dropped with its last reply.
        auto *session = new QNetworkAccessManager();
        fetch(*session, [session, completion](const NQErrorOpt &error) {
            session->deleteLater();
            completion(error ? QStringLiteral("No internet") : QString());
        });
    });
}
