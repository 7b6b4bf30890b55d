// NQVPNManager: the tunnel client process, its output and the stop sequence.
#include "vpn/NQVPNManager.h"

#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "platform/Platform.h"
#include "vpn/TunnelOutputParser.h"
#include "vpn/TunnelProcess.h"
#include "vpn/TunnelStateReporter.h"

#include <QFileInfo>
#include <QProcess>

#include <csignal>

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

void handleOutput(const std::weak_ptr<TunnelStateReporter> &weakReporter, const QByteArray &bytes)
{
    const auto chunk = TunnelOutputParser::parse(bytes);
    if (!chunk)
        return;
    log(QStringLiteral("Output: %1").arg(chunk->text));
    if (!chunk->state)
        return;
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
    if (const auto reporter = weakReporter.lock())
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

    m_reporter->report(VpnStateConnecting);
    const std::weak_ptr<TunnelStateReporter> weakReporter = m_reporter;
    TunnelProcess::Handlers handlers;
    handlers.onOutput = [weakReporter](const QByteArray &chunk) { handleOutput(weakReporter, chunk); };
    // The exit itself changes no state: the last output chunk has said what happened.
    handlers.onTerminated = [](int exitStatus, const QByteArray &remaining) {
        log(QStringLiteral("OpenVPN process terminated with exit code: %1").arg(exitStatus));
        const QString rest = QString::fromUtf8(remaining);
        if (!rest.isEmpty())
            log(QStringLiteral("OpenVPN error output: %1").arg(rest));
    };
    const auto launch = m_process->launch(platform.sudoPath(), {clientPath, profilePath}, std::move(handlers));
    if (launch.pid == 0) {
        // The state stays "connecting": the user cancels, which stops and resets it.
        log(QStringLiteral("Failed to start OpenVPN with sudo: %1").arg(launch.failureReason));
        return;
    }
    log(QStringLiteral("OpenVPN process started with sudo."));
    m_files.writePidFile(launch.pid);
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
}

void NQVPNManager::disconnectAllVPNConnections()
{
    const QString command =
        QStringLiteral("%1 pkill %2").arg(shellQuoted(Platform::instance().sudoPath()), QLatin1String(kClientName));
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), command});
    // No time limit: the caller waits for pkill, as it always has.
    if (!process.waitForStarted() || !process.waitForFinished(-1)) {
        log(QStringLiteral("Error while executing sudo command: %1").arg(process.errorString()));
    } else {
        const QString output = QString::fromUtf8(process.readAll());
        if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
            log(QStringLiteral("Failed to disconnect OpenVPN connections. Error: %1").arg(output));
        else
            log(QStringLiteral("All OpenVPN connections have been disconnected successfully."));
    }
    m_reporter->report(VpnStateDisconnected);
}
