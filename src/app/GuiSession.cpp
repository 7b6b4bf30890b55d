#include "GuiSession.h"

#include "SignalWatcher.h"
#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "platform/Platform.h"
#include "platform/SystemEvents.h"
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

#include <QCoreApplication>

struct GuiSession::Parts {
    explicit Parts(const QStringList &arguments)
        : vpn(NQVPNManager::sharedManager()), services{vpn,        location, alerts,
                                                       urls,       chrome,   extension,
                                                       loginItems, updates,  AppStorageManager::sharedManager()},
          window(services),
          // exit, not quit: Qt's quit asks every window first, and the main window may refuse
          // to close (it miniaturises), which would cancel the quit the controller decided.
          application(arguments, [] { QCoreApplication::exit(0); }), delegate(application, engine, window, alerts, urls)
    {
    }

    ManagerVpnEngine vpn;
    BackofficeLocationLookup location;
    MessageBoxAlertPresenter alerts;
    DesktopUrlOpener urls;
    ProcessChromeLauncher chrome;
    BrowserExtensionControl extension;
    AppKitLoginItems loginItems;
    AppUpdateService updates;
    UiServices services;
    MainWindowHost window;
    DefaultShellEngine engine;
    NQApplication application;
    AppDelegate delegate;
    SignalWatcher watcher;
    // Made when a tunnel is first wanted: the sleep watch loads Qt D-Bus.
    std::unique_ptr<SystemEvents> systemEvents;
};

GuiSession::GuiSession(const QStringList &arguments) : GuiSession(arguments, Options()) {}

GuiSession::GuiSession(const QStringList &arguments, Options options) : d(std::make_unique<Parts>(arguments))
{
    d->window.setSystemTrayAvailable(options.systemTrayAvailable);
    d->window.setShouldClose([this] { return d->delegate.windowShouldClose(); });
    d->window.setOnActivate([this] { d->application.activate(); });
    d->window.setOnQuit([this] { d->application.terminate(); });
    QObject::connect(&d->watcher, &SignalWatcher::terminationRequested, &d->window, [this](int number) {
        NQLog::line(QStringLiteral("|GuiApp| signal %1: quitting").arg(number));
        d->application.terminate();
    });

    // A tunnel client that sudo refused: say why and what to do, and stop, so the panel does
    // not stay "connecting". One that vanished without a word: the tunnel the user wants is
    // down, and the connection panel brings it back.
    NQVPNManager::sharedManager().setOnClientEnded([this](const TunnelClientEnd &end) {
        MainQueue::async([this, end] {
            const int state = AppStorageManager::sharedManager().getVPNStatus();
            if (state != VpnStateConnecting && state != VpnStateConnected)
                return;
            if (end.kind == TunnelClientEnd::Kind::EndedUnreported) {
                NQLog::line(QStringLiteral("|GuiApp| ") + end.message());
                NQVPNManager::sharedManager().tunnelLost();
                return;
            }
            NQVPNManager::sharedManager().stopVPNConnection();
            AlertRequest request;
            request.title = QStringLiteral("The tunnel could not be started");
            request.message = end.message();
            request.buttons = {{QStringLiteral("Ok"), AlertPresenter::kDefaultButtonTag}};
            d->alerts.runModal(request, [](long) {});
        });
    });

    EventBus::defaultCenter().addObserver(this, Events::NT_TUNNEL_WANTED, [this](const Event &) {
        if (d->systemEvents)
            return;
        d->systemEvents = Platform::instance().createSystemEvents();
        d->systemEvents->start(
            [](SystemEvents::Kind kind) {
                switch (kind) {
                case SystemEvents::Kind::Sleeping:
                    EventBus::defaultCenter().post(Events::NT_SYSTEM_SLEEP);
                    break;
                case SystemEvents::Kind::Resumed:
                    EventBus::defaultCenter().post(Events::NT_SYSTEM_WAKE);
                    break;
                case SystemEvents::Kind::NetworkChanged:
                    EventBus::defaultCenter().post(Events::NT_NETWORK_CHANGED);
                    break;
                }
            },
            [](const QString &text) { NQLog::line(QStringLiteral("|SystemEvents| ") + text); });
    });
}

GuiSession::~GuiSession()
{
    EventBus::defaultCenter().removeObserver(this);
    NQVPNManager::sharedManager().setOnClientEnded(nullptr);
}

void GuiSession::start()
{
    // A block a killed tunnel client (or this program) left would keep the network shut.
    NQVPNManager::sharedManager().clearKillSwitchLeftBehind();
    d->delegate.applicationDidFinishLaunching();
}

void GuiSession::showRequested()
{
    NQLog::line(QStringLiteral("|GuiApp| another launch asked for the window"));
    d->delegate.showMainWindow();
}

AppDelegate &GuiSession::delegate()
{
    return d->delegate;
}

MainWindowHost &GuiSession::window()
{
    return d->window;
}

NQApplication &GuiSession::application()
{
    return d->application;
}
