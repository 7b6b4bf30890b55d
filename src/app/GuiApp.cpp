#include "GuiApp.h"

#include "SignalWatcher.h"
#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "shell/AppDelegate.h"
#include "shell/DefaultShellEngine.h"
#include "shell/NQApplication.h"
#include "ui/UiServices.h"
#include "ui/app/AppKitLoginItems.h"
#include "ui/app/AppUpdateService.h"
#include "ui/app/BackofficeLocationLookup.h"
#include "ui/app/BrowserExtensionControl.h"
#include "ui/app/DesktopUrlOpener.h"
#include "ui/app/MainWindowHost.h"
#include "ui/app/ManagerVpnEngine.h"
#include "ui/app/ProcessChromeLauncher.h"
#include "ui/widgets/MessageBoxAlertPresenter.h"
#include "vpn/NQVPNManager.h"
#include "vpn/VpnState.h"

#include <QApplication>
#include <QDir>
#include <QTimer>
#include <QWidget>

namespace {

void startScreenshots(QApplication &app)
{
    const QString dir = qEnvironmentVariable(GuiApp::kScreenshotDirVariable);
    if (dir.isEmpty() || !QDir().mkpath(dir))
        return;
    auto *timer = new QTimer(&app);
    QObject::connect(timer, &QTimer::timeout, &app, [timer, dir, taken = 0]() mutable {
        if (++taken > GuiApp::kMaxScreenshots) {
            timer->stop();
            return;
        }
        for (QWidget *window : QApplication::topLevelWidgets()) {
            if (!window->isVisible())
                continue;
            const QString path = QStringLiteral("%1/shot-%2-%3.png")
                                     .arg(dir)
                                     .arg(taken, 2, 10, QLatin1Char('0'))
                                     .arg(QString::fromLatin1(window->metaObject()->className()));
            window->grab().save(path);
        }
    });
    timer->start(GuiApp::kScreenshotIntervalMs);
}

} // namespace

int GuiApp::run(QApplication &app)
{
    // The tray icon keeps the program alive while the main window is dropped or closed.
    QApplication::setQuitOnLastWindowClosed(false);

    ManagerVpnEngine vpn(NQVPNManager::sharedManager());
    BackofficeLocationLookup location;
    MessageBoxAlertPresenter alerts;
    DesktopUrlOpener urls;
    ProcessChromeLauncher chrome;
    BrowserExtensionControl extension;
    AppKitLoginItems loginItems;
    AppUpdateService updates;
    UiServices services{
        vpn, location, alerts, urls, chrome, extension, loginItems, updates, AppStorageManager::sharedManager()};

    MainWindowHost window(services);
    DefaultShellEngine engine;
    NQApplication application(app.arguments());
    AppDelegate delegate(application, engine, window, alerts, urls);
    window.setShouldClose([&delegate] { return delegate.windowShouldClose(); });
    window.setOnActivate([&application] { application.activate(); });

    SignalWatcher watcher;
    QObject::connect(&watcher, &SignalWatcher::terminationRequested, &app, [&application](int number) {
        NQLog::line(QStringLiteral("|GuiApp| signal %1: quitting").arg(number));
        application.terminate();
    });

    // A tunnel client that sudo refused, or that vanished without a word: say why and what to
    // do, and stop, so the panel does not stay "connecting" or "connected".
    NQVPNManager::sharedManager().setOnClientEnded([&alerts](const TunnelClientEnd &end) {
        MainQueue::async([&alerts, end] {
            const int state = AppStorageManager::sharedManager().getVPNStatus();
            if (state != VpnStateConnecting && state != VpnStateConnected)
                return;
            NQVPNManager::sharedManager().stopVPNConnection();
            AlertRequest request;
            request.title = end.kind == TunnelClientEnd::Kind::PrivilegeRefused
                                ? QStringLiteral("The tunnel could not be started")
                                : QStringLiteral("The tunnel has ended");
            request.message = end.message();
            request.buttons = {{QStringLiteral("Ok"), AlertPresenter::kDefaultButtonTag}};
            alerts.runModal(request, [](long) {});
        });
    });

    startScreenshots(app);
    delegate.applicationDidFinishLaunching();
    const int status = app.exec();
    NQVPNManager::sharedManager().setOnClientEnded(nullptr);
    return status;
}
