#include "shell/AppDelegate.h"

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "platform/Platform.h"
#include "shell/AppUpdateManager.h"
#include "shell/NQAppKit.h"
#include "shell/ShellEngine.h"
#include "shell/SplashVC.h"
#include "shell/WindowHost.h"
#include "vpn/VpnState.h"

namespace {
const OsLog &logger()
{
    static const OsLog log("Delegate");
    return log;
}
} // namespace

AppDelegate::AppDelegate(NQApplication &app, ShellEngine &engine, WindowHost &window, AlertPresenter &alerts,
                         UrlOpener &urls)
    : AppDelegate(app, engine, window, alerts, urls, Options())
{
}

AppDelegate::AppDelegate(NQApplication &app, ShellEngine &engine, WindowHost &window, AlertPresenter &alerts,
                         UrlOpener &urls, Options options)
    : m_app(app), m_engine(engine), m_window(window), m_alerts(alerts), m_urls(urls), m_options(std::move(options)),
      m_service(m_options.launcherPath)
{
    m_app.setDelegate(this);
    AppUpdateManager::setWindowHost(&m_window);
}

AppDelegate::~AppDelegate()
{
    AppUpdateManager::setWindowHost(nullptr);
    m_app.setDelegate(nullptr);
    EventBus::defaultCenter().removeToken(m_restartToken);
}

void AppDelegate::applicationDidFinishLaunching()
{
    const QString handled =
        QStringLiteral("[%1] Handle notification: '%2")
            .arg(QStringLiteral("AppDelegate"), QStringLiteral("NSApplicationDidFinishLaunchingNotification"));
    logger().info(handled);
    const QStringList arguments = m_app.arguments();
    AppStorageManager &store = AppStorageManager::sharedManager();
    redirectConsoleLogToDocumentFolder();
    NQLog::line(handled);

    if (arguments.contains(QStringLiteral("CLEAR_USERDEFAULTS"))) {
        NQLog::line(QStringLiteral("|AppDelegate| APP FIRST RUN."));
        store.removeAppStorage();
        store.resetSettings();
    }
    if (arguments.contains(QStringLiteral("CLEAR_VPN")))
        store.removeVpnCredentials();

    // A start by the session's autostart entry stays out of sight until the next activation.
    m_isFromLoginItems = arguments.contains(Platform::instance().loginItemArgument());
    createMainWindow();
    setupMenuBar();
    listenNotifications();
    AppStorageManager::setSecretsNotKeptHandler([this, alive = std::weak_ptr<char>(m_alive)](const NQError &why) {
        if (alive.lock())
            tellSecretsNotKept(why);
    });

    getLabelConfig([this, alive = std::weak_ptr<char>(m_alive)] {
        if (alive.lock())
            launchCompletion();
    });
    getLabelConfigBrowserChrome([](const NQErrorOpt &) {});

    store.setVpnDisabled(false);

    const bool inList = NQAppKit::appIsInLoginItems();
    const bool wanted = store.appAutorunEnabled();
    if (wanted && !inList)
        NQAppKit::setLaunchAtLogin(true);
    else if (!wanted && inList)
        NQAppKit::setLaunchAtLogin(false);

    vpnRunService();
    m_engine.startExtensionServer();
}

void AppDelegate::createMainWindow()
{
    m_splash = std::make_unique<SplashVC>(m_engine, m_alerts, m_window);
    m_window.createMainWindow(*m_splash);
    m_splash->viewDidLoad();
    if (m_isFromLoginItems) {
        NQLog::line(QStringLiteral("|AppDelegate| PelorinVPN launched as login item"));
        m_window.activateWithoutWindow();
        // Without a tray nothing else could ever bring the window up.
        if (!m_window.statusItemAvailable())
            showMainWindow();
    } else {
        showMainWindow();
    }
}

void AppDelegate::showMainWindow()
{
    m_isFromLoginItems = false;
    m_window.showMainWindow();
}

void AppDelegate::applicationDidBecomeActive()
{
    NQLog::line(QStringLiteral("|AppDelegate| applicationDidBecomeActive"));
    if (m_isFromLoginItems) {
        NQLog::line(QStringLiteral("|AppDelegate| didBecomeActive from login items"));
        m_isFromLoginItems = false;
        return;
    }
    showMainWindow();
}

void AppDelegate::setupMenuBar()
{
    StatusMenu menu;
    menu.buttonTitle = m_engine.localizedString(QStringLiteral("<app_name>"));
    menu.imageName = QStringLiteral("AppIcon");
    menu.items = {
        {QString(), {}},
        {m_engine.localizedString(QStringLiteral("Open")), [this] { clickTrayOpen(); }},
        {m_engine.localizedString(QStringLiteral("Settings")), [this] { clickTraySettings(); }},
        {QString(), {}},
        {m_engine.localizedString(QStringLiteral("Quit_software_name")), [this] { m_app.terminate(); }},
    };
    m_window.setupStatusItem(menu);
}

void AppDelegate::clickTrayOpen()
{
    MainQueue::async([this, alive = std::weak_ptr<char>(m_alive)] {
        if (alive.lock() && m_splash)
            m_window.deminiaturizeMainWindow();
    });
}

void AppDelegate::clickTraySettings()
{
    MainQueue::async([this, alive = std::weak_ptr<char>(m_alive)] {
        if (!alive.lock())
            return;
        clickTrayOpen();
        EventBus::defaultCenter().post(QLatin1String(Events::SHOW_SETTINGS));
    });
}

void AppDelegate::notificationLoadingStart()
{
    NQLog::line(QStringLiteral("|AppDelegate| notification loading start"));
    EventBus::defaultCenter().post(QLatin1String(Events::NOTIFICATION_LOADING_START));
}

void AppDelegate::listenNotifications()
{
    if (m_restartToken != 0)
        return;
    m_restartToken = EventBus::defaultCenter().addObserverForName(
        QLatin1String(Events::APP_RESTART), [this, alive = std::weak_ptr<char>(m_alive)](const Event &) {
            if (!alive.lock())
                return;
            NQLog::line(QStringLiteral("|AppDelegate| NT_APP_RESTART"));
            if (m_splash) {
                m_window.dropMainWindow();
                // The old screen may be the caller further up the stack: let it go later.
                MainQueue::async([old = std::shared_ptr<SplashVC>(std::move(m_splash))] {});
            }
            createMainWindow();
            setupMenuBar();
        });
}
