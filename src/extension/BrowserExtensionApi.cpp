#include "extension/BrowserExtensionApi.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/LocalString.h"
#include "foundation/Log.h"
#include "platform/Platform.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cerrno>
#include <mutex>

namespace {
std::unique_ptr<BrowserExtensionApi> g_instance;
std::mutex g_instanceMutex;
} // namespace

BrowserExtensionApi::BrowserExtensionApi(AppStorageManager *storage, Platform *platform)
    : m_appStorage(storage ? *storage : AppStorageManager::sharedManager()), m_storage(m_appStorage),
      m_platform(platform ? *platform : Platform::instance())
{
}

BrowserExtensionApi::~BrowserExtensionApi() = default;

BrowserExtensionApi &BrowserExtensionApi::defaultInstance()
{
    std::lock_guard lock(g_instanceMutex);
    if (!g_instance)
        g_instance = std::make_unique<BrowserExtensionApi>();
    return *g_instance;
}

void BrowserExtensionApi::setDefaultInstanceForTesting(std::unique_ptr<BrowserExtensionApi> api)
{
    std::lock_guard lock(g_instanceMutex);
    g_instance = std::move(api);
}

std::uint16_t BrowserExtensionApi::serverPort() const
{
    bool ok = false;
    const int fromEnv = qEnvironmentVariableIntValue(kPortEnvironmentVariable, &ok);
    if (ok && fromEnv >= 0 && fromEnv <= 65535)
        return static_cast<std::uint16_t>(fromEnv);
    const int fromSetting = m_appStorage.value(QString::fromLatin1(kPortSettingKey)).toInt(&ok);
    if (ok && fromSetting > 0 && fromSetting <= 65535)
        return static_cast<std::uint16_t>(fromSetting);
    return kDefaultPort;
}

void BrowserExtensionApi::startServer()
{
    NQLog::line(QStringLiteral("|BrowserExtension| startServer."));
    const std::uint16_t port = serverPort();
    NQErrorOpt error;
    m_server = CVWebSocketServer::initWithPort(port, this, &error);
    if (!m_server && error && error->domain() == QLatin1String(NQError::kPosixDomain) && error->code() == EACCES &&
        port < 1024) {
        NQLog::line(QStringLiteral(
                        "|BrowserExtension| cannot listen on port %1: ports below 1024 need a privilege this process "
                        "lacks, so the browser extension cannot connect. Grant it once with "
                        "\"sudo setcap 'cap_net_bind_service=+ep' %2\", or lower "
                        "net.ipv4.ip_unprivileged_port_start to %1 (sysctl).")
                        .arg(port)
                        .arg(QCoreApplication::applicationFilePath()));
    }
    if (!m_server && error && error->domain() == QLatin1String(NQError::kPosixDomain) && error->code() == EADDRINUSE) {
        NQLog::line(QStringLiteral("|BrowserExtension| cannot listen on port %1: another program is using it, so the "
                                   "browser extension cannot connect. Stop that program, or choose another port "
                                   "with %2 or the \"%3\" setting.")
                        .arg(port)
                        .arg(QLatin1String(kPortEnvironmentVariable), QLatin1String(kPortSettingKey)));
    }
}

void BrowserExtensionApi::send(const QString &text)
{
    if (m_server)
        m_server->send(text);
}

void BrowserExtensionApi::dispatchAnyEvent()
{
    EventBus::defaultCenter().post(QString::fromLatin1(Events::NT_BROWSER_ANY_EVENT));
}

void BrowserExtensionApi::sendScrambleNow()
{
    NQLog::line(QStringLiteral("|BrowserExtension| send: scramble"));
    send(QStringLiteral("{\"Command\":\"SCRAMBLE\",\"Browser\":\"CHROME\"}"));
}

void BrowserExtensionApi::sendEnableAdsBlocker()
{
    m_storage.storeAdsBlockerEnabled(true);
    NQLog::line(QStringLiteral("|BrowserExtension| send: ChromeAdBlockerON"));
    send(QStringLiteral("{\"Command\":\"ADBLOCKERONOFF\",\"Value\":\"ON\",\"Browser\":\"CHROME\"}"));
    dispatchAnyEvent();
}

void BrowserExtensionApi::sendDisableAdsBlocker()
{
    m_storage.storeAdsBlockerEnabled(false);
    NQLog::line(QStringLiteral("|BrowserExtension| send: ChromeAdBlockerOFF"));
    send(QStringLiteral("{\"Command\":\"ADBLOCKERONOFF\",\"Value\":\"OFF\",\"Browser\":\"CHROME\"}"));
    dispatchAnyEvent();
}

void BrowserExtensionApi::sendSetLanguage(const QString &code)
{
    send(QStringLiteral("{\"Command\":\"SETLANGUAGE\",\"Value\":\"%1\",\"Browser\":\"CHROME\"}").arg(code));
    dispatchAnyEvent();
}

void BrowserExtensionApi::sendSettings()
{
    NQLog::line(QStringLiteral("|BrowserExtensionApi| sendSettings"));
    if (m_storage.adsBlockerEnabled())
        sendEnableAdsBlocker();
    else
        sendDisableAdsBlocker();
    sendSetLanguage(LocalString::appLanguageCode());
}

void BrowserExtensionApi::sendWhitelistCommand(const char *command)
{
    const auto list = m_storage.blockerWhitelist();
    if (!list)
        return;
    QJsonArray value;
    for (const WhitelistDomain &domain : *list)
        value.append(domain.toJSON());
    const QJsonObject message{{QStringLiteral("Command"), QString::fromLatin1(command)},
                              {QStringLiteral("Browser"), QStringLiteral("CHROME")},
                              {QStringLiteral("Value"), value}};
    const QString text = QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact));
    NQLog::line(QStringLiteral("jsonData as string:\n%1").arg(text));
    send(text);
}

void BrowserExtensionApi::sendWhitelist()
{
    NQLog::line(QStringLiteral("|BrowserExtension| send: Whitelist"));
    sendWhitelistCommand("WHITELIST");
}

void BrowserExtensionApi::sendWhitelistMerged()
{
    NQLog::line(QStringLiteral("|BrowserExtension| send: sendWhitelistMerged"));
    sendWhitelistCommand("WHITELISTMERGED");
}

bool BrowserExtensionApi::isAdsBlockerEnabled() const
{
    return m_storage.adsBlockerEnabled();
}

QVariantMap BrowserExtensionApi::blockedDomains() const
{
    return m_storage.blockedDomains();
}

QStringList BrowserExtensionApi::blockedDomainsSortedKeys() const
{
    const QVariantMap domains = m_storage.blockedDomains();
    QStringList keys = domains.keys();
    std::stable_sort(keys.begin(), keys.end(), [&](const QString &a, const QString &b) {
        return domains.value(a).toLongLong() > domains.value(b).toLongLong();
    });
    return keys;
}

qint64 BrowserExtensionApi::statisticsCount(const char *key) const
{
    return m_storage.extensionStatistics().value(QString::fromLatin1(key)).toLongLong();
}

qint64 BrowserExtensionApi::countBlockedDomainsAllTime() const
{
    return statisticsCount("all_time");
}
qint64 BrowserExtensionApi::countBlockedDomainsThisYear() const
{
    return statisticsCount("this_year");
}
qint64 BrowserExtensionApi::countBlockedDomainsThisMonth() const
{
    return statisticsCount("this_month");
}
qint64 BrowserExtensionApi::countBlockedDomainsThisWeek() const
{
    return statisticsCount("this_week");
}
qint64 BrowserExtensionApi::countBlockedDomainsToday() const
{
    return statisticsCount("this_day");
}

void BrowserExtensionApi::webSocketServerDidAcceptConnection(CVWebSocketServer *, const WebSocketConnection &)
{
    NQLog::line(QStringLiteral("|BrowserExtension| webSocketServer:didAcceptConnection: Connected to a client, we "
                               "accept multiple connections"));
}

void BrowserExtensionApi::webSocketServerClientDisconnected(CVWebSocketServer *, const WebSocketConnection &connection)
{
    NQLog::line(QStringLiteral("|BrowserExtension| webSocketServer:clientDisconnected: Disconnected from client: %1")
                    .arg(connection.description()));
}

void BrowserExtensionApi::webSocketServerCouldNotParseRawData(CVWebSocketServer *, const QByteArray &,
                                                              const WebSocketConnection &, const NQError &error)
{
    NQLog::line(QStringLiteral("|BrowserExtension| webSocketServer:couldNotParseRawData: CVWebSocketServer error: %1")
                    .arg(error.debugDescription()));
}
