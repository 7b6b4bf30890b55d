// NQVPNManager: the setting that blocks traffic outside the tunnel, and lifting the block.
#include "vpn/NQVPNManager.h"

#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "platform/Platform.h"
#include "vpn/BoundedCommand.h"
#include "vpn/TrafficBlock.h"

namespace {
void log(const QString &text)
{
    NQLog::line(QStringLiteral("|NQVPNManager| ") + text);
}
} // namespace

bool NQVPNManager::killSwitchEnabled() const
{
    return AppStorageManager::sharedManager().value(QLatin1String(kKillSwitchKey)).toBool();
}

void NQVPNManager::setKillSwitchEnabled(bool on)
{
    AppStorageManager &store = AppStorageManager::sharedManager();
    store.setValue(QLatin1String(kKillSwitchKey), on);
    if (on) {
        store.setValue(QLatin1String(kKillSwitchLeftKey), true);
        return;
    }
    // Off means traffic flows now, not at the next connect.
    m_block->holdBetweenRuns = false;
    clearKillSwitch();
}

bool NQVPNManager::trafficBlocked() const
{
    return m_block->blocked();
}

void NQVPNManager::setOnTrafficBlockedChange(std::function<void(bool blocked)> callback)
{
    m_block->setCallback(std::move(callback));
}

void NQVPNManager::setHoldBlockBetweenRuns(bool hold)
{
    m_block->holdBetweenRuns = hold;
}

void NQVPNManager::clearKillSwitchLeftBehind()
{
    const AppStorageManager &store = AppStorageManager::sharedManager();
    if (killSwitchEnabled() || store.value(QLatin1String(kKillSwitchLeftKey)).toBool())
        clearKillSwitch();
}

bool NQVPNManager::clearKillSwitch()
{
    if (!runClearKillSwitch(m_killByNameTimeoutMs))
        return false;
    m_block->setBlocked(false);
    AppStorageManager::sharedManager().setValue(QLatin1String(kKillSwitchLeftKey), QVariant());
    return true;
}

bool NQVPNManager::runClearKillSwitch(int timeoutMs)
{
    Platform &platform = Platform::instance();
    const BoundedCommand run = BoundedCommand::run(
        platform.sudoPath(), {platform.helperPath(QLatin1String(kClientName)), QLatin1String(kClearKillSwitchFlag)},
        timeoutMs);
    switch (run.outcome) {
    case BoundedCommand::Outcome::NotStarted:
        log(QStringLiteral("Cannot lift the traffic block: %1").arg(run.detail));
        return false;
    case BoundedCommand::Outcome::TimedOut:
        log(QStringLiteral("Cannot lift the traffic block: no answer within %1 ms").arg(timeoutMs));
        return false;
    case BoundedCommand::Outcome::Failed:
        log(QStringLiteral("Cannot lift the traffic block: %1").arg(run.detail.trimmed()));
        return false;
    case BoundedCommand::Outcome::Succeeded:
        break;
    }
    log(QStringLiteral("Traffic outside the tunnel is no longer blocked"));
    return true;
}
