// AppDelegate: log redirection, label links, post-install page, quit rules.
#include "shell/AppDelegate.h"

#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/BundleExtended.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/SecretStatus.h"
#include "shell/AlertPresenter.h"
#include "shell/ShellEngine.h"
#include "shell/UrlOpener.h"
#include "shell/WindowHost.h"
#include "vpn/VpnState.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cstdio>
#include <unistd.h>

namespace {
constexpr int kLabelMark = 1;

// The log holds the VPN password (the "storeVPNCredentials:pass:" line), so the folder and the
// file are for their owner only, also when an older version left them readable.
constexpr QFileDevice::Permissions kPrivateFile = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
constexpr QFileDevice::Permissions kPrivateFolder = kPrivateFile | QFileDevice::ExeOwner;

bool createPrivateLog(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Append, kPrivateFile) && file.setPermissions(kPrivateFile);
}

bool reopenStandardErrorOn(const QString &path)
{
    const QByteArray native = QFile::encodeName(path);
    // Try the file first: a failed freopen would leave the process without standard error.
    std::FILE *probe = std::fopen(native.constData(), "a+");
    if (!probe)
        return false;
    std::fclose(probe);
    return std::freopen(native.constData(), "a+", stderr) != nullptr;
}
} // namespace

void AppDelegate::redirectConsoleLogToDocumentFolder()
{
    const bool terminal = m_options.standardErrorIsTerminal ? m_options.standardErrorIsTerminal() : isatty(2) != 0;
    if (terminal)
        return;
    const QString folder = AppConfig::appDataURL();
    QDir().mkpath(folder);
    QFile::setPermissions(folder, kPrivateFolder);
    const QString path = QStringLiteral("%1/app_mac_logs.log").arg(folder);
    if (QFileInfo(path).isFile()) {
        QFile old(path);
        if (old.remove())
            NQLog::line(QStringLiteral("Removed previous log file"));
        else
            NQLog::line(QStringLiteral("Error removing file at path: %1").arg(old.errorString()));
    }
    const bool reopened = createPrivateLog(path) && (m_options.reopenStandardError ? m_options.reopenStandardError(path)
                                                                                   : reopenStandardErrorOn(path));
    if (!reopened)
        NQLog::line(
            QStringLiteral("|AppDelegate| Cannot redirect the log to '%1': the log stays on standard error").arg(path));
}

void AppDelegate::getLabelConfig(std::function<void()> completion)
{
    // The identifier may wait for the keyring and its unlock prompt: not on this thread.
    AppConfig::deviceUniqueID([this, alive = std::weak_ptr<char>(m_alive),
                               completion = std::move(completion)](const QString &deviceID) mutable {
        if (alive.lock())
            getLabelConfigFor(deviceID, std::move(completion));
    });
}

void AppDelegate::getLabelConfigFor(const QString &deviceID, std::function<void()> completion)
{
    AppStorageManager &store = AppStorageManager::sharedManager();
    m_engine.labelsettings(
        QStringLiteral("20014"), deviceID, store.accountKey(), kLabelMark, m_engine.appLanguageCode(),
        AppConfig::appVersion(),
        [completion = std::move(completion)](const QString &support, const QString &postInstall,
                                             const QString &postUninstall, const NQErrorOpt &error) {
            AppStorageManager &storage = AppStorageManager::sharedManager();
            if (error) {
                NQLog::line(QStringLiteral("|AppDelegate| getLabelConfig FAILED: %1").arg(error->debugDescription()));
            } else {
                if (!support.isNull())
                    storage.storeSupportLink(support);
                if (!postInstall.isNull())
                    storage.storePostInstallLink(postInstall);
                if (!postUninstall.isNull())
                    storage.storePostUninstallLink(postUninstall);
            }
            if (completion)
                completion();
        });
}

void AppDelegate::tellSecretsNotKept(const NQError &why)
{
    NQLog::line(QStringLiteral("|AppDelegate| Secrets not kept: %1").arg(why.localizedDescription()));
    AlertRequest alert;
    alert.title =
        m_engine.localizedString(why.code() == SecretStatus::UserCanceled ? QStringLiteral("keyring_stayed_locked")
                                                                          : QStringLiteral("keyring_unusable"));
    alert.message = m_engine.localizedString(QStringLiteral("secrets_not_kept"))
                        .replace(QLatin1String("%@"), why.localizedDescription());
    alert.buttons = {{m_engine.localizedString(QStringLiteral("Ok")), AlertPresenter::kDefaultButtonTag}};
    m_alerts.runModal(alert, [](long) {});
}

void AppDelegate::getLabelConfigBrowserChrome(std::function<void(const NQErrorOpt &)> completion)
{
    m_engine.fetchBrowserExtensionConfig(
        AppConfig::labelID(), QStringLiteral("chrome"),
        [completion = std::move(completion)](bool success, const QString &link, const NQErrorOpt &error) {
            AppStorageManager &storage = AppStorageManager::sharedManager();
            if (error || !success)
                storage.setLabelConfigBrowserChromeLink(QLatin1String(kDefaultChromeExtensionLink));
            else
                storage.setLabelConfigBrowserChromeLink(link);
            if (completion)
                completion(error);
        });
}

void AppDelegate::launchCompletion()
{
    AppStorageManager &store = AppStorageManager::sharedManager();
    if (!store.value(QLatin1String(kPostInstallUrlVisitedKey)).toBool()) {
        const QString link = store.postInstallLink();
        if (!link.isEmpty()) {
            // Marked first, so a crash while the browser opens cannot open it twice.
            store.setValue(QLatin1String(kPostInstallUrlVisitedKey), true);
            m_urls.openUrl(link);
        }
    }
    QString uninstall = store.postUninstallLink();
    if (uninstall.isEmpty())
        uninstall = QStringLiteral("<empty>");
    const QString marker =
        QStringLiteral("%1,%2,%3").arg(uninstall, AppConfig::deviceUniqueID(), BundleExtended::appVersionString());
    const QString folder = AppConfig::appDataURL();
    QDir().mkpath(folder);
    QSaveFile file(folder + QStringLiteral("/nqpostuninstall"));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(marker.toUtf8());
        file.commit();
    }
}

ApplicationDelegate::TerminateReply AppDelegate::applicationShouldTerminate()
{
    NQLog::line(QStringLiteral("|AppDelegate| applicationShouldTerminate"));
    if (AppStorageManager::sharedManager().getVPNStatus() != VpnStateConnected)
        return TerminateNow;
    m_engine.stopVPNConnection();
    MainQueue::after(kTerminateRetryMs, [app = &m_app, alive = std::weak_ptr<char>(m_alive)] {
        if (alive.lock())
            app->terminate();
    });
    return TerminateLater;
}

void AppDelegate::applicationWillTerminate()
{
    AppStorageManager::sharedManager().storeNotFirstRun(true);
    m_engine.flushExtensionStorage();
    // Credentials stored moments ago may still be on their way to the keychain.
    AppStorageManager::sharedManager().flush();
    vpnCloseService();
}

void AppDelegate::appTerminated(const QVariantMap &userInfo)
{
    const QString handled =
        QStringLiteral("[%1] Handle notification: '%2")
            .arg(QStringLiteral("AppDelegate"), QStringLiteral("NSWorkspaceDidTerminateApplicationNotification"));
    NQLog::line(handled);
    const QString name = userInfo.value(QStringLiteral("NSApplicationName")).toString();
    if (name == QLatin1String("PelorinVPN"))
        vpnCloseService();
    NQLog::line(QStringLiteral("%1 DONE: Terminated App: '%2'.").arg(handled, name));
}

bool AppDelegate::windowShouldClose()
{
    NQLog::line(QStringLiteral("|MainWindow| windowShouldClose"));
    // Without a tray a miniaturised window would leave no way back and no way out.
    if (AppStorageManager::sharedManager().appExitOnClose() || !m_window.statusItemAvailable()) {
        m_app.terminate();
        return true;
    }
    m_window.miniaturizeMainWindow();
    return false;
}
