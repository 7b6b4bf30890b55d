#include "shell/ServiceLauncher.h"

#include "foundation/AppConfig.h"
#include "foundation/Log.h"
#include "foundation/NQError.h"
#include "platform/Platform.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cerrno>

namespace {
const OsLog &logger()
{
    static const OsLog log("Delegate");
    return log;
}

QString quoted(const QString &text)
{
    return text.isEmpty() ? QStringLiteral("(null)") : text;
}
} // namespace

ServiceLauncher::ServiceLauncher(QString launcherPath, QString dataDir)
    : m_launcherPath(std::move(launcherPath)), m_dataDir(std::move(dataDir))
{
}

ServiceLauncher::~ServiceLauncher()
{
    if (m_serviceTask && m_serviceTask->state() != QProcess::NotRunning) {
        // Closing the pipe is the helper's other cue to end; give it a moment to clean up.
        m_serviceTask->closeWriteChannel();
        m_serviceTask->waitForFinished(kExitGraceMs);
    }
}

QString ServiceLauncher::launcherLocation() const
{
    if (!m_launcherPath.isNull())
        return m_launcherPath;
    return Platform::instance().helperPath(QStringLiteral("vpnctrl_launcher"));
}

QString ServiceLauncher::dataDirectory() const
{
    return m_dataDir.isNull() ? AppConfig::appDataURL() : m_dataDir;
}

void ServiceLauncher::vpnRunService()
{
    logger().info(QStringLiteral("|VPN| Run service. BEGIN"));
    if (m_serviceTask) {
        logger().fault(QStringLiteral("|VPN| Run service. DONE with error: 'Already running.'."));
        return;
    }
    m_serviceTask = std::make_unique<QProcess>();
    // Standard input is our pipe; output and errors are inherited.
    m_serviceTask->setProcessChannelMode(QProcess::ForwardedChannels);

    const QString location = launcherLocation();
    if (location.isEmpty()) {
        logger().fault(QStringLiteral("|VPN| Run service. DONE with error: 'Launcher not found at url: '%1'.'.")
                           .arg(quoted(location)));
        return;
    }
    const QFileInfo info(location);
    if (!info.exists() || info.isDir()) {
        const NQError error = NQError::posix(info.isDir() ? EISDIR : ENOENT);
        logger().fault(
            QStringLiteral("|VPN| Run service. DONE with error: 'Launcher running failed with error: '%1'.'.")
                .arg(error.localizedDescription()));
        return;
    }
    logger().info(QStringLiteral("|VPN| Run service. Set Launcher URL: '%1'.").arg(location));
    m_serviceTask->start(location, {});
    if (m_serviceTask->waitForStarted(-1)) {
        logger().info(QStringLiteral("|VPN| Run service. DONE."));
    } else {
        logger().fault(QStringLiteral("|VPN| Run service. DONE with error: '%1'.'.").arg(m_serviceTask->errorString()));
    }
}

void ServiceLauncher::vpnCloseService()
{
    logger().info(QStringLiteral("|VPN| Close service. BEGIN"));
    if (m_closingService) {
        logger().fault(QStringLiteral("|VPN| Close service. DONE with error: 'Already closing...'."));
    } else if (!m_serviceTask) {
        logger().fault(QStringLiteral("|VPN| Close service. DONE with fatal error: 'Missing Task or input Pipe.'."));
        m_closingService = false;
    } else {
        m_closingService = true;
        writeQuitLine();
        cleanOpenVPN();
    }
    logger().info(QStringLiteral("|VPN| Close service. DONE."));
    m_closingService = false;
}

void ServiceLauncher::writeQuitLine()
{
    const QByteArray line = QStringLiteral("quit\n").toUtf8();
    // A helper that never started (or has ended) has no open pipe: the write fails and is logged.
    if (!m_serviceTask->isOpen() || m_serviceTask->state() != QProcess::Running) {
        const QString why = m_serviceTask->errorString().isEmpty() ? NQError::posix(EPIPE).localizedDescription()
                                                                   : m_serviceTask->errorString();
        logger().fault(QStringLiteral("|VPN| Close service. DONE with fatal error: '%1'.").arg(why));
        return;
    }
    const qint64 written = m_serviceTask->write(line);
    // Hand the bytes to the pipe now: the process may be about to end.
    if (written != line.size() || !m_serviceTask->waitForBytesWritten(-1)) {
        logger().fault(
            QStringLiteral("|VPN| Close service. DONE with fatal error: '%1'.").arg(m_serviceTask->errorString()));
        return;
    }
    logger().info(QStringLiteral("|VPN| Close service. DONE."));
}

void ServiceLauncher::cleanOpenVPN()
{
    const QString folder = dataDirectory();
    QDir().mkpath(folder);
    const QString path = QStringLiteral("%1/openvpn.last_pid").arg(folder);
    if (!QFileInfo::exists(path))
        return;
    QFile file(path);
    if (file.remove())
        NQLog::line(QStringLiteral("Removed previous openvpn.last_pid file"));
    else
        NQLog::line(QStringLiteral("Error removing file at path: %1").arg(file.errorString()));
}
