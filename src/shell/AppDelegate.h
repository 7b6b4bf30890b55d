#pragma once

#include "foundation/EventBus.h"
#include "foundation/NQError.h"
#include "shell/NQApplication.h"
#include "shell/ServiceLauncher.h"

#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>

class AlertPresenter;
class ShellEngine;
class SplashVC;
class UrlOpener;
class WindowHost;

// The application's controller: the launch sequence, the main window and status item (through
// WindowHost), restarts, the quit rules and the session helper.
//
// Main thread only. The collaborators are borrowed and must outlive the delegate.
class AppDelegate : public ApplicationDelegate {
public:
    // Where the extension store page is when the backend gives no link.
    static constexpr auto kDefaultChromeExtensionLink =
        "https://chromewebstore.google.com/detail/quellon/kembcdlbgbcnnchcnbdhbmbhbejnedjf";
    static constexpr auto kPostInstallUrlVisitedKey = "POST_INSTALL_URL_VISITED";
    static constexpr int kTerminateRetryMs = 3000;

    struct Options {
        // Where the session helper is; null: the platform's helper location.
        QString launcherPath{};
        // Whether standard error is a terminal; null: ask the process.
        std::function<bool()> standardErrorIsTerminal{};
        // Reopens standard error for appending on a path; null: the C library's freopen.
        std::function<bool(const QString &path)> reopenStandardError{};
    };

    AppDelegate(NQApplication &app, ShellEngine &engine, WindowHost &window, AlertPresenter &alerts, UrlOpener &urls);
    AppDelegate(NQApplication &app, ShellEngine &engine, WindowHost &window, AlertPresenter &alerts, UrlOpener &urls,
                Options options);
    ~AppDelegate() override;

    void applicationDidFinishLaunching();
    void applicationDidBecomeActive() override;
    TerminateReply applicationShouldTerminate() override;
    void applicationWillTerminate() override;

    void redirectConsoleLogToDocumentFolder();
    void createMainWindow();
    void showMainWindow();
    void setupMenuBar();
    void listenNotifications();
    void clickTrayOpen();
    void clickTraySettings();
    void notificationLoadingStart();
    void getLabelConfig(std::function<void()> completion);
    void getLabelConfigBrowserChrome(std::function<void(const NQErrorOpt &)> completion);
    void vpnRunService() { m_service.vpnRunService(); }
    void vpnCloseService() { m_service.vpnCloseService(); }
    void cleanOpenVPN() { m_service.cleanOpenVPN(); }
    // Another application ended; `userInfo` may carry "NSApplicationName".
    void appTerminated(const QVariantMap &userInfo);
    // The main window's close button: quit or miniaturise, by "EXIT_ON_CLOSE".
    bool windowShouldClose();

    bool isFromLoginItems() const { return m_isFromLoginItems; }
    bool hasMainWindow() const { return m_splash != nullptr; }
    // The start-up screen in the current main window, or nullptr between restart steps.
    SplashVC *splash() const { return m_splash.get(); }
    ServiceLauncher &service() { return m_service; }

    // Tells the person that this run's device identity and VPN sign-in will not be kept, and why
    // (the keyring's unlock was refused or it could not be used): a log line and an alert.
    void tellSecretsNotKept(const NQError &why);

private:
    void launchCompletion();
    void getLabelConfigFor(const QString &deviceID, std::function<void()> completion);

    NQApplication &m_app;
    ShellEngine &m_engine;
    WindowHost &m_window;
    AlertPresenter &m_alerts;
    UrlOpener &m_urls;
    Options m_options;
    ServiceLauncher m_service;
    std::unique_ptr<SplashVC> m_splash;
    std::shared_ptr<char> m_alive = std::make_shared<char>();
    bool m_isFromLoginItems = false;
    EventBus::Token m_restartToken = 0;
};
