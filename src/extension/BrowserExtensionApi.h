#pragma once

#include "extension/CVWebSocketServer.h"
#include "extension/ExtensionMessageDispatch.h"
#include "extension/ExtensionStorage.h"

#include <QString>
#include <QStringList>

#include <memory>

class Platform;

// The application's side of the conversation with the companion browser extension: owns the
// WebSocket server, turns the extension's messages into stored settings, statistics and
// events, and sends the user's settings back. Main thread only.
class BrowserExtensionApi : public CVWebSocketServerDelegate {
public:
    // The product listens on 80. PELORIN_EXTENSION_PORT, then the setting below, replace it
    // (tests, the demo, or a machine where port 80 cannot be had).
    static constexpr std::uint16_t kDefaultPort = 80;
    static constexpr auto kPortEnvironmentVariable = "PELORIN_EXTENSION_PORT";
    static constexpr auto kPortSettingKey = "ExtensionServerPort";
    // The companion extension's Chrome identifier.
    static constexpr auto kChromeExtensionsID = "kembcdlbgbcnnchcnbdhbmbhbejnedjf";

    // `storage` and `platform` default to the process-wide instances.
    explicit BrowserExtensionApi(AppStorageManager *storage = nullptr, Platform *platform = nullptr);
    ~BrowserExtensionApi() override;

    static BrowserExtensionApi &defaultInstance();
    // Replaces the process-wide instance (tests); nullptr makes a fresh default next time.
    static void setDefaultInstanceForTesting(std::unique_ptr<BrowserExtensionApi> api);

    // Starts listening; logs and leaves browserExtWebsocket() null when that fails.
    void startServer();
    std::uint16_t serverPort() const;
    CVWebSocketServer *browserExtWebsocket() const { return m_server.get(); }

    bool chromeConnected() const { return m_chromeConnected; }
    bool firefoxConnected() const { return m_firefoxConnected; }
    QString currentDomain() const { return m_currentDomain; }
    bool scrambling() const { return m_scrambling; }
    void setScrambling(bool value) { m_scrambling = value; }

    // Sending, to every connected extension.
    void sendScrambleNow();
    void sendEnableAdsBlocker();
    void sendDisableAdsBlocker();
    void sendSetLanguage(const QString &code);
    void sendSettings();
    void sendWhitelist();
    void sendWhitelistMerged();

    // Queries for the settings screen.
    bool isAdsBlockerEnabled() const;
    QVariantMap blockedDomains() const;
    QStringList blockedDomainsSortedKeys() const; // by count, highest first
    qint64 countBlockedDomainsAllTime() const;
    qint64 countBlockedDomainsThisYear() const;
    qint64 countBlockedDomainsThisMonth() const;
    qint64 countBlockedDomainsThisWeek() const;
    qint64 countBlockedDomainsToday() const;
    bool isChromeInstalled() const;
    bool isFirefoxInstalled() const;
    bool isChromeExtensionInstalled() const;
    static QString chromeExtensionsID() { return QString::fromLatin1(kChromeExtensionsID); }
    // The console user's home folder; null when nobody is at the console.
    QString currentUserHomeDirectory() const;
    // Profile folder "Profile <n>" (any n) holds the extension (installed or unpacked).
    bool folderExistsForProfile(int profileNumber, const QString &extensionID) const;
    bool extensionIDExistsForDefaultProfile(const QString &extensionID) const;
    // An unpacked (developer) copy in the default profile, else isExtensionInstalledForDebug.
    bool extensionIDExistsForDebugExtensions(const QString &extensionID) const;
    // The running user's own Chrome default profile holds the extension; logs the path and
    // the answer.
    bool isExtensionInstalledForDebug(const QString &extensionID) const;

    ExtensionStorage &storage() { return m_storage; }
    void dispatchAnyEvent();
    // Handles one message as if an extension had sent it (the server's path in).
    void dispatchMessage(const QString &text);

    void webSocketServerDidAcceptConnection(CVWebSocketServer *, const WebSocketConnection &) override;
    void webSocketServerDidReceiveData(CVWebSocketServer *, const QByteArray &data,
                                       const WebSocketConnection &) override;
    void webSocketServerClientDisconnected(CVWebSocketServer *, const WebSocketConnection &connection) override;
    void webSocketServerCouldNotParseRawData(CVWebSocketServer *, const QByteArray &, const WebSocketConnection &,
                                             const NQError &error) override;

private:
    void send(const QString &text);
    void sendWhitelistCommand(const char *command);
    void announceChrome();
    void handleSwitch(ExtensionMessageDispatch::Handler handler, const QString &text);
    void handleStatistics(const QString &text);
    void handleBlockedDomain(const QString &text);
    void handleFoundCookies(const QString &text);
    qint64 statisticsCount(const char *key) const;
    bool extensionFolderExists(const QString &profileDir, const QString &extensionID) const;

    AppStorageManager &m_appStorage;
    ExtensionStorage m_storage;
    Platform &m_platform;
    std::unique_ptr<CVWebSocketServer> m_server;
    bool m_chromeConnected = false;
    bool m_firefoxConnected = false;
    bool m_scrambling = false;
    QString m_currentDomain;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};
