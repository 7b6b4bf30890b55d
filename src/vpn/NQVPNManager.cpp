#include "vpn/NQVPNManager.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "platform/Platform.h"
#include "vpn/TrafficBlock.h"
#include "vpn/TunnelProcess.h"
#include "vpn/TunnelStateReporter.h"

#include <mutex>

namespace {
std::mutex g_sharedMutex;
NQVPNManager *g_shared = nullptr;
} // namespace

NQVPNManager::NQVPNManager()
    : m_files([] { return Platform::instance().temporaryDirectory(); }),
      m_reporter(std::make_shared<TunnelStateReporter>()), m_process(std::make_unique<TunnelProcess>()),
      m_block(std::make_shared<TrafficBlock>())
{
}

NQVPNManager::~NQVPNManager() = default;

NQVPNManager &NQVPNManager::sharedManager()
{
    std::lock_guard lock(g_sharedMutex);
    // Never destroyed: a client may still be running when the process exits, and its
    // watcher thread must not be torn down behind it.
    if (!g_shared)
        g_shared = new NQVPNManager;
    return *g_shared;
}

void NQVPNManager::setSharedManagerForTesting(std::unique_ptr<NQVPNManager> manager)
{
    std::lock_guard lock(g_sharedMutex);
    delete g_shared;
    g_shared = manager.release();
}

void NQVPNManager::notificationAppReady()
{
    NQLog::line(QStringLiteral("|NQVPNManager| post NT_APP_READY"));
    EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_APP_READY));
}

void NQVPNManager::notificationClustersLoaded(const QList<NQVPNCountry> &countries)
{
    NQLog::line(QStringLiteral("|NQVPNManager| post NT_CLUSTERS_LOADED"));
    EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_CLUSTERS_LOADED),
                                   {{QLatin1String(Events::NQVpnKeyClustersArray), QVariant::fromValue(countries)}});
}

void NQVPNManager::clearTemporaryDirectory()
{
    m_files.clearTemporaryDirectory();
}

QString NQVPNManager::writeConfigToTemporaryFile(const QString &config, const QString &countryName)
{
    return m_files.writeConfigToTemporaryFile(config, countryName);
}

QString NQVPNManager::writeCredentialsToTemporaryFileWithUsername(const QString &username, const QString &password)
{
    return m_files.writeCredentialsToTemporaryFileWithUsername(username, password);
}
