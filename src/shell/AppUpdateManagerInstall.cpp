// Download and installation half of AppUpdateManager.
#include "shell/AppUpdateManager.h"

#include "foundation/AppConfig.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/NQConfig.h"
#include "platform/Platform.h"
#include "shell/WindowHost.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QSaveFile>
#include <QTemporaryFile>

namespace {
// Termination reasons as the installer's outcome is logged: ended by itself, or by a signal.
constexpr int kReasonExit = 1;
constexpr int kReasonUncaughtSignal = 2;
} // namespace

void AppUpdateManager::downloadAndInstallPKG()
{
    m_isDownloading = true;
    const QString downloads = Platform::instance().downloadsDirectory();
    // The package is received next to its destination, so the final move is a rename.
    QDir().mkpath(downloads);
    m_partial = std::make_unique<QTemporaryFile>(downloads + QStringLiteral("/.pelorin-update-XXXXXX.part"));
    if (!m_partial->open()) {
        NQLog::line(QStringLiteral("|AppUpdateManager| Download error: %1").arg(m_partial->errorString()));
        failDownload();
        return;
    }
    QNetworkRequest request{QUrl(AppConfig::updateUrlDirect())};
    request.setTransferTimeout(static_cast<int>(NQConfig::shared().appHttpDefaultTimeout * 1000));
    QNetworkReply *reply = m_network->get(request);
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        if (m_partial && m_partial->write(reply->readAll()) < 0)
            reply->abort();
    });
    connect(reply, &QNetworkReply::downloadProgress, this, &AppUpdateManager::downloadProgress);
    connect(reply, &QNetworkReply::finished, this, [this, reply] { downloadFinished(reply); });
}

void AppUpdateManager::downloadFinished(QNetworkReply *reply)
{
    reply->deleteLater();
    if (!m_partial)
        return;
    if (reply->error() == QNetworkReply::NoError && m_partial->write(reply->readAll()) < 0) {
        NQLog::line(QStringLiteral("|AppUpdateManager| Download error: %1").arg(m_partial->errorString()));
        failDownload();
        return;
    }
    if (reply->error() != QNetworkReply::NoError) {
        NQLog::line(QStringLiteral("|AppUpdateManager| Download error: %1").arg(reply->errorString()));
        failDownload();
        return;
    }
    // The publisher's signature, served beside the package; checked before anything runs.
    QNetworkRequest request{QUrl(AppConfig::updateUrlDirect() + QLatin1String(kSignatureSuffix))};
    request.setTransferTimeout(static_cast<int>(NQConfig::shared().appHttpDefaultTimeout * 1000));
    QNetworkReply *signature = m_network->get(request);
    connect(signature, &QNetworkReply::finished, this, [this, signature] { signatureFinished(signature); });
}

void AppUpdateManager::signatureFinished(QNetworkReply *reply)
{
    reply->deleteLater();
    if (!m_partial)
        return;
    m_signature = reply->read(kSignatureBytes + 1);
    if (reply->error() != QNetworkReply::NoError || m_signature.size() != kSignatureBytes) {
        refuseUpdate(QStringLiteral("the package has no signature (%1)").arg(reply->errorString()));
        return;
    }
    const QString destination =
        Platform::instance().downloadsDirectory() + QLatin1Char('/') + Platform::instance().updatePackageName();
    if (QFileInfo(destination).exists() || QFileInfo(destination).isSymLink()) {
        QFile old(destination);
        if (!old.remove()) {
            NQLog::line(QStringLiteral("|AppUpdateManager| Failed to delete existing file: %1").arg(old.errorString()));
            failDownload();
            return;
        }
    }
    m_partial->flush();
    if (!m_partial->rename(destination)) {
        const QString why = m_partial->errorString();
        failDownload();
        NQLog::line(QStringLiteral("|AppUpdateManager| Failed to move file: %1").arg(why));
        return;
    }
    m_partial->setAutoRemove(false);
    m_partial.reset();
    QSaveFile signatureFile(destination + QLatin1String(kSignatureSuffix));
    if (!signatureFile.open(QIODevice::WriteOnly) || signatureFile.write(m_signature) != m_signature.size() ||
        !signatureFile.commit()) {
        refuseUpdate(
            QStringLiteral("the signature cannot be kept beside the package: %1").arg(signatureFile.errorString()));
        return;
    }
    NQLog::line(QStringLiteral("|AppUpdateManager| File successfully moved to: %1").arg(destination));
    installPKGAtPath(destination);
}

void AppUpdateManager::refuseUpdate(const QString &why)
{
    NQLog::line(QStringLiteral("|AppUpdateManager| Update refused: %1").arg(why));
    failDownload();
}

void AppUpdateManager::installPKGAtPath(const QString &path)
{
    NQLog::line(QStringLiteral("|AppUpdateManager| installPKGAtPath"));
    if (const QString problem = packageProblem(path); !problem.isEmpty()) {
        refuseUpdate(problem);
        return;
    }
    QStringList command = Platform::instance().installerCommand(path);
    if (command.isEmpty()) {
        m_isDownloading = false;
        notificationAppReady();
        NQLog::line(QStringLiteral("|AppUpdateManager| Error launching installer: %1")
                        .arg(QStringLiteral("no installer on this system")));
        return;
    }
    // The installer runs without blocking the main thread; its end is handled below.
    m_installer = std::make_unique<QProcess>();
    m_installer->setProcessChannelMode(QProcess::ForwardedChannels);
    QProcess *installer = m_installer.get();
    connect(installer, &QProcess::finished, this, [this](int exitCode, QProcess::ExitStatus exitStatus) {
        const bool crashed = exitStatus == QProcess::CrashExit;
        installerFinished(crashed && exitCode == 0 ? -1 : exitCode, crashed ? kReasonUncaughtSignal : kReasonExit);
    });
    connect(installer, &QProcess::errorOccurred, this, [this, installer](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        const QString why = installer->errorString();
        m_isDownloading = false;
        notificationAppReady();
        NQLog::line(QStringLiteral("|AppUpdateManager| Error launching installer: %1").arg(why));
        MainQueue::async([this] { m_installer.reset(); });
    });
    const QString program = command.takeFirst();
    installer->start(program, command);
}

void AppUpdateManager::installerFinished(int status, int reason)
{
    NQLog::line(QStringLiteral("|AppUpdateManager| Installation termination status = %1 and reason = %2.")
                    .arg(status)
                    .arg(reason));
    MainQueue::async([this] { m_installer.reset(); });
    if (status != 0) {
        m_isDownloading = false;
        notificationAppReady();
        NQLog::line(QStringLiteral("|AppUpdateManager| Installation failed with status: %1").arg(status));
        return;
    }
    NQLog::line(QStringLiteral("Installation completed successfully."));
    m_isDownloading = false;
    MainQueue::async([this] {
        EventBus::defaultCenter().post(QLatin1String(Events::NT_HIDE_UPDATE));
        if (WindowHost *window = windowHost())
            window->setActivationPolicyProhibited();
        if (m_installedHandler)
            m_installedHandler();
    });
}
