#include "shell/AppUpdateManager.h"

#include "foundation/AppConfig.h"
#include "foundation/BundleExtended.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/NQConfig.h"
#include "shell/NQApplication.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QStringList>
#include <QTemporaryFile>

#include <limits>

namespace {
std::unique_ptr<AppUpdateManager> g_shared;
WindowHost *g_window = nullptr;

// Leading integer of a version component: optional blanks and sign, then digits.
qint64 integerValue(const QString &component)
{
    int i = 0;
    while (i < component.size() && component.at(i).isSpace())
        ++i;
    bool negative = false;
    if (i < component.size() && (component.at(i) == QLatin1Char('-') || component.at(i) == QLatin1Char('+')))
        negative = component.at(i++) == QLatin1Char('-');
    qint64 value = 0;
    constexpr qint64 kMax = std::numeric_limits<qint64>::max() / 10 - 9;
    for (; i < component.size() && component.at(i).isDigit(); ++i)
        value = value < kMax ? value * 10 + component.at(i).digitValue() : std::numeric_limits<qint64>::max();
    return negative ? -value : value;
}

int transferTimeoutMs()
{
    return static_cast<int>(NQConfig::shared().appHttpDefaultTimeout * 1000);
}
} // namespace

AppUpdateManager::AppUpdateManager() : m_network(std::make_unique<QNetworkAccessManager>())
{
    m_installedHandler = [] {
        if (NQApplication *app = NQApplication::current())
            app->terminate();
    };
}

AppUpdateManager::~AppUpdateManager() = default;

AppUpdateManager &AppUpdateManager::sharedManager()
{
    if (!g_shared)
        g_shared = std::make_unique<AppUpdateManager>();
    return *g_shared;
}

void AppUpdateManager::setWindowHost(WindowHost *window)
{
    g_window = window;
}

WindowHost *AppUpdateManager::windowHost()
{
    return g_window;
}

void AppUpdateManager::setSharedManagerForTesting(std::unique_ptr<AppUpdateManager> manager)
{
    g_shared = std::move(manager);
}

QString AppUpdateManager::compareVersions(const QString &version1, const QString &version2)
{
    const QStringList a = version1.split(QLatin1Char('.'));
    const QStringList b = version2.split(QLatin1Char('.'));
    for (qsizetype i = 0; i < std::max(a.size(), b.size()); ++i) {
        const qint64 x = i < a.size() ? integerValue(a.at(i)) : 0;
        const qint64 y = i < b.size() ? integerValue(b.at(i)) : 0;
        if (x != y)
            return x > y ? version1 : version2;
    }
    return version1;
}

QString AppUpdateManager::ownVersion()
{
    return QStringLiteral("%1.%2").arg(BundleExtended::stringForKey(BundleExtended::kShortVersionKey),
                                       BundleExtended::stringForKey(BundleExtended::kVersionKey));
}

void AppUpdateManager::checkForUpdateWithCompletion(std::function<void(bool)> completion)
{
    NQLog::line(QStringLiteral("|AppUpdateManager| checkForUpdate"));
    QNetworkRequest request{QUrl(AppConfig::updateUrlLatestVersion())};
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setTransferTimeout(transferTimeoutMs());
    QNetworkReply *reply = m_network->get(request);
    connect(reply, &QNetworkReply::finished, this, [reply, completion = std::move(completion)] {
        reply->deleteLater();
        if (reply->error() != QNetworkReply::NoError) {
            NQLog::line(QStringLiteral("Error: %1").arg(reply->errorString()));
            completion(false);
            return;
        }
        const QByteArray data = reply->readAll();
        if (data.isEmpty()) {
            completion(false);
            return;
        }
        const QString latest = QString::fromUtf8(data);
        NQLog::line(QStringLiteral("|AppUpdateManager| Latest Version :\n%1").arg(latest));
        const QString own = ownVersion();
        const bool available = compareVersions(own, latest) != own;
        MainQueue::async([completion, available] { completion(available); });
    });
}

void AppUpdateManager::notificationAppReady()
{
    NQLog::line(QStringLiteral("|NQVPNManager| post NT_APP_READY"));
    EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
}

void AppUpdateManager::failDownload()
{
    m_partial.reset();
    m_isDownloading = false;
    notificationAppReady();
}
