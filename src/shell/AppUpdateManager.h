#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
class QProcess;
class QTemporaryFile;
class WindowHost;

// Self-update from a package: fetch the latest version text, compare it with our own,
// download the package into the Downloads folder, install it with administrator rights and
// quit after a successful installation.
//
// Every failure (transport, file, installer) is logged, clears isDownloading and posts
// "NOTIFICATION_APP_READY", which lets a waiting start-up screen go on. Main thread only.
class AppUpdateManager : public QObject {
    Q_OBJECT
public:
    // The publisher signs every package (Ed25519, detached, served beside the package with
    // this suffix); the public key ships with the program among its resources.
    static constexpr auto kSignatureSuffix = ".sig";
    static constexpr auto kPublicKeyName = "update-key.pem";
    static constexpr auto kProductPackageName = "pelorin-vpn";
    static constexpr qint64 kMaxPackageBytes = 512LL * 1024 * 1024;
    static constexpr qint64 kSignatureBytes = 64;

    AppUpdateManager();
    ~AppUpdateManager() override;

    static AppUpdateManager &sharedManager();
    // Replaces the process-wide instance (tests); nullptr builds a fresh one on next use.
    static void setSharedManagerForTesting(std::unique_ptr<AppUpdateManager> manager);

    // The greater of two versions, compared by the integer value of their dot-separated
    // components (a missing component counts 0); `version1` when they are equal.
    static QString compareVersions(const QString &version1, const QString &version2);
    // "<short version>.<build number>".
    static QString ownVersion();

    // Completion (main queue) says whether the latest version is strictly greater than ours.
    void checkForUpdateWithCompletion(std::function<void(bool updateAvailable)> completion);
    void downloadAndInstallPKG();
    void installPKGAtPath(const QString &path);
    // Why the package at `path` (signature at `path` + kSignatureSuffix) must not be installed:
    // unsigned, signed by another key, not this product's package or older than we are.
    // Empty when it may be installed.
    static QString packageProblem(const QString &path);
    // Empty when `signature` is the holder of `publicKeyPem`'s Ed25519 signature of `data`.
    static QString signatureProblem(const QByteArray &data, const QByteArray &signature,
                                    const QByteArray &publicKeyPem);
    void notificationAppReady();

    bool isDownloading() const { return m_isDownloading; }

    // The windowing side: after a successful installation its activation policy becomes
    // prohibited (no window, no status item) before the application quits. Set by the
    // application controller for as long as it lives; nullptr for none.
    static void setWindowHost(WindowHost *window);

    // Runs after a successful installation, on the main queue, once "NT_HIDE_UPDATE" has been
    // posted and the activation policy set. By default the running application is asked to
    // terminate.
    void setInstalledHandler(std::function<void()> handler) { m_installedHandler = std::move(handler); }

signals:
    // Bytes received so far and the announced total (-1 when unknown).
    void downloadProgress(qint64 received, qint64 total);

private:
    static WindowHost *windowHost();
    void downloadFinished(QNetworkReply *reply);
    void signatureFinished(QNetworkReply *reply);
    void refuseUpdate(const QString &why);
    void failDownload();
    void installerFinished(int status, int reason);

    std::unique_ptr<QNetworkAccessManager> m_network;
    std::unique_ptr<QTemporaryFile> m_partial;
    QByteArray m_signature;
    std::unique_ptr<QProcess> m_installer;
    std::function<void()> m_installedHandler;
    bool m_isDownloading = false;
};
