// NQVPNManager: the tunnel client process, its output and the stop sequence.
#include "vpn/NQVPNManager.h"

#include "vpn/BoundedCommand.h"

#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "platform/Platform.h"
#include "vpn/TrafficBlock.h"
#include "vpn/TunnelOutputParser.h"
#include "vpn/TunnelProcess.h"
#include "vpn/TunnelStateReporter.h"

#include <QFileInfo>

#include <csignal>
#include <cstdint>

namespace {
void log(const QString &text)
{
    NQLog::line(QStringLiteral("|NQVPNManager| ") + text);
}

// Quoted for bash: the sudo path may be a test's stand-in in a folder with blanks.
QString shellQuoted(const QString &text)
{
    QString quoted = text;
    quoted.replace(QLatin1Char('\''), QStringLiteral("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

// What one launch's handlers know about its run; touched only on the tunnel I/O thread.
struct LaunchRecord {
    std::uint64_t launch = 0;
    bool clientSpoke = false;     // a line of the client itself has arrived
    bool finalMarkerSeen = false; // the output has reported the end (state 1)
    QString earlyOutput;          // what came before the client spoke (sudo's words)
    bool blockLeft = false;       // the client's table may be in place
    QString countryName;          // the cluster, remembered once its tunnel is up
};

void handleOutput(const std::weak_ptr<TunnelStateReporter> &weakReporter, const std::weak_ptr<TrafficBlock> &weakBlock,
                  LaunchRecord &record, const QByteArray &bytes)
{
    const auto chunk = TunnelOutputParser::parse(bytes);
    if (!chunk)
        return;
    log(QStringLiteral("Output: %1").arg(chunk->text));
    if (const auto blocked = TrafficBlock::announced(chunk->text)) {
        record.blockLeft = *blocked;
        const auto reporter = weakReporter.lock();
        if (const auto block = weakBlock.lock(); block && reporter && reporter->isCurrent(record.launch))
            block->setBlocked(*blocked);
    }
    if (chunk->text.contains(QLatin1String(NQVPNManager::kClientName) + QLatin1Char(':')))
        record.clientSpoke = true;
    else if (!record.clientSpoke && record.earlyOutput.size() < TunnelClientEnd::kMaxDetailChars)
        record.earlyOutput += chunk->text;
    if (!chunk->state)
        return;
    record.finalMarkerSeen = *chunk->state == VpnStateDisconnected;
    switch (*chunk->state) {
    case VpnStateConnected:
        log(QStringLiteral("VPN Connected Successfully."));
        break;
    case VpnStateDisconnected:
        log(QStringLiteral("VPN Disconnected."));
        break;
    case VpnStateAuthFailed:
        log(QStringLiteral("VPN Authentication Failed."));
        break;
    default:
        break;
    }
    // A client of an earlier launch no longer speaks for the tunnel.
    const auto reporter = weakReporter.lock();
    if (!reporter || !reporter->isCurrent(record.launch))
        return;
    if (*chunk->state == VpnStateConnected)
        AppStorageManager::sharedManager().storeLastConnectedCluster(record.countryName);
    reporter->report(*chunk->state);
}
} // namespace

NQVPNManager::StateCallback NQVPNManager::onConnectionStateChange() const
{
    return m_reporter->callback();
}

void NQVPNManager::setOnConnectionStateChange(StateCallback callback)
{
    m_reporter->setCallback(std::move(callback));
}

void NQVPNManager::setOnClientEnded(ClientEndCallback callback)
{
    m_reporter->setClientEndCallback(std::move(callback));
}

void NQVPNManager::startVPNConnectionWithConfigContent(const QString &content, const QString &countryName)
{
    const auto credentials = AppStorageManager::sharedManager().getVpnCredentials();
    const QString profilePath = m_files.prepare(content, countryName, credentials.username, credentials.password);
    if (profilePath.isNull())
        return;

    Platform &platform = Platform::instance();
    const QString clientPath = platform.helperPath(QLatin1String(kClientName));
    if (!QFileInfo::exists(clientPath)) {
        log(QStringLiteral("OpenVPN executable not found."));
        return;
    }

    auto record = std::make_shared<LaunchRecord>();
    record->launch = m_reporter->nextLaunch();
    record->countryName = countryName;
    m_reporter->report(VpnStateConnecting);
    const bool killSwitch = killSwitchEnabled();
    if (killSwitch)
        AppStorageManager::sharedManager().setValue(QLatin1String(kKillSwitchLeftKey), true);
    const std::weak_ptr<TunnelStateReporter> weakReporter = m_reporter;
    const std::weak_ptr<TrafficBlock> weakBlock = m_block;
    TunnelProcess::Handlers handlers;
    handlers.onOutput = [weakReporter, weakBlock, record](const QByteArray &chunk) {
        handleOutput(weakReporter, weakBlock, *record, chunk);
    };
    // The exit itself changes no state: the last output chunk has said what happened. A run
    // whose output never said it (sudo refused, the client was killed) is handed to the
    // owner, who tells the user and stops.
    handlers.onTerminated = [weakReporter, weakBlock, record,
                             timeoutMs = m_killByNameTimeoutMs](int exitStatus, const QByteArray &remaining) {
        log(QStringLiteral("OpenVPN process terminated with exit code: %1").arg(exitStatus));
        const QString rest = QString::fromUtf8(remaining);
        if (!rest.isEmpty())
            log(QStringLiteral("OpenVPN error output: %1").arg(rest));
        const auto reporter = weakReporter.lock();
        if (!reporter || !reporter->isCurrent(record->launch))
            return;
        // A client that was killed, or lost its tunnel, may have left its table: lifted here
        // unless a reconnect holds it.
        if (const auto block = weakBlock.lock(); block && record->blockLeft && !block->holdBetweenRuns) {
            log(QStringLiteral("The tunnel client ended with traffic blocked; lifting the block"));
            if (runClearKillSwitch(timeoutMs))
                block->setBlocked(false);
        }
        const auto end =
            TunnelClientEnd::classify(record->finalMarkerSeen, record->clientSpoke, exitStatus, record->earlyOutput);
        if (end) {
            log(QStringLiteral("OpenVPN process ended unreported: %1").arg(end->message()));
            reporter->reportClientEnd(*end);
        }
    };
    QStringList arguments{clientPath};
    if (killSwitch)
        arguments << QLatin1String(kKillSwitchFlag);
    arguments << profilePath;
    const auto launch = m_process->launch(platform.sudoPath(), arguments, std::move(handlers));
    if (launch.pid == 0) {
        // The state stays "connecting": the user cancels, which stops and resets it.
        log(QStringLiteral("Failed to start OpenVPN with sudo: %1").arg(launch.failureReason));
        return;
    }
    log(QStringLiteral("OpenVPN process started with sudo."));
    m_files.writePidFile(launch.pid);
}

void NQVPNManager::tunnelLost()
{
    log(QStringLiteral("Tunnel lost: the client is gone."));
    m_reporter->nextLaunch();
    m_reporter->report(VpnStateDisconnected);
}

void NQVPNManager::stopVPNConnection()
{
    // The order is deliberate: clearing first removes the pid file too, so the signal below
    // normally finds nothing and the kill by name does the real work.
    m_files.clearTemporaryDirectory();
    m_reporter->report(VpnStateDisconnecting);
    if (const qint64 pid = m_files.readPidFile(); pid > 0) {
        ::kill(static_cast<pid_t>(pid), SIGTERM);
        log(QStringLiteral("Terminated previous OpenVPN process with PID %1").arg(pid));
        m_files.removeFile(QLatin1String(TunnelProfileFiles::kPidFileName));
    }
    m_currentCountry.reset();
    m_files.removeFile(QLatin1String(TunnelProfileFiles::kStateFileName));
    disconnectAllVPNConnections();
    m_block->holdBetweenRuns = false;
    // The stopped client lifts its own block; one left by a client that ended earlier is
    // lifted here.
    if (m_block->blocked())
        clearKillSwitch();
}

void NQVPNManager::disconnectAllVPNConnections()
{
    const QString command =
        QStringLiteral("%1 pkill %2").arg(shellQuoted(Platform::instance().sudoPath()), QLatin1String(kClientName));
    // The caller blocks (the window's thread), so the wait has a bound; then the stop goes on.
    const BoundedCommand run =
        BoundedCommand::run(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), command}, m_killByNameTimeoutMs);
    switch (run.outcome) {
    case BoundedCommand::Outcome::NotStarted:
        log(QStringLiteral("Error while executing sudo command: %1").arg(run.detail));
        break;
    case BoundedCommand::Outcome::TimedOut:
        log(QStringLiteral("Error while executing sudo command: %1 did not finish within %2 ms")
                .arg(command)
                .arg(m_killByNameTimeoutMs));
        break;
    case BoundedCommand::Outcome::Failed:
        log(QStringLiteral("Failed to disconnect OpenVPN connections. Error: %1").arg(run.detail));
        break;
    case BoundedCommand::Outcome::Succeeded:
        log(QStringLiteral("All OpenVPN connections have been disconnected successfully."));
        break;
    }
    m_reporter->report(VpnStateDisconnected);
}
