#include "shell/SplashVC.h"

#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "shell/AlertPresenter.h"
#include "shell/AppUpdateManager.h"
#include "shell/NQApplication.h"
#include "shell/ShellEngine.h"
#include "shell/WindowHost.h"

namespace {
const OsLog &logger()
{
    static const OsLog log("SplashVC");
    return log;
}

constexpr int kRegisterDeviceType = 2;
} // namespace

SplashVC::SplashVC(ShellEngine &engine, AlertPresenter &alerts, WindowHost &window)
    : m_engine(engine), m_alerts(alerts), m_window(window)
{
}

SplashVC::~SplashVC()
{
    EventBus::defaultCenter().removeObserver(this);
    EventBus::defaultCenter().removeToken(m_appReadyToken);
}

std::function<void()> SplashVC::guarded(std::function<void()> fn)
{
    return [alive = std::weak_ptr<char>(m_alive), fn = std::move(fn)] {
        if (alive.lock())
            fn();
    };
}

void SplashVC::setState(State state)
{
    m_state = state;
    if (m_stateObserver)
        m_stateObserver(state);
}

void SplashVC::viewDidLoad()
{
    NQLog::line(QStringLiteral("|SplashVC| viewDidLoad"));
    checkForUpdate();
    checkConnection();
    notificationsSubscribe();
}

void SplashVC::viewWillDisappear()
{
    notificationsUnsubscribe();
}

void SplashVC::checkForUpdate()
{
    NQLog::line(QStringLiteral("|SplashVC| checkForUpdate"));
    const AppStorageManager &store = AppStorageManager::sharedManager();
    if (!store.notFirstRun() || !store.autoupdate())
        return;
    NQLog::line(QStringLiteral("|AppDelegate| Updater: Run Auto-Update on First-Run."));
    AppUpdateManager::sharedManager().checkForUpdateWithCompletion([](bool available) {
        AppUpdateManager &updates = AppUpdateManager::sharedManager();
        if (available && !updates.isDownloading())
            updates.downloadAndInstallPKG();
    });
}

void SplashVC::checkConnection()
{
    setState(State::CheckingConnection);
    MainQueue::after(
        kCheckConnectionDelayMs, guarded([this] {
            m_engine.checkIsInternetAvailable([this, alive = std::weak_ptr<char>(m_alive)](const QString &error) {
                if (!alive.lock())
                    return;
                if (!error.isNull()) {
                    NQLog::line(QStringLiteral("|SplashVC| checkConnection: %1").arg(error));
                    showAlertNoInternetWithContinueBlock([this] { openHome(); }, [this] { checkConnection(); });
                    return;
                }
                registerVpn();
            });
        }));
}

void SplashVC::registerVpn()
{
    NQLog::line(QStringLiteral("|SplashVC| registerVpn"));
    setState(State::WaitingForCredentials);
    // The identifier may still wait for the keyring's unlock prompt: not on this thread.
    AppConfig::deviceUniqueID([this, alive = std::weak_ptr<char>(m_alive)](const QString &deviceID) {
        if (alive.lock())
            registerVpnFor(deviceID);
    });
}

void SplashVC::registerVpnFor(const QString &deviceID)
{
    const QString key = AppStorageManager::sharedManager().accountKey();
    m_engine.registerVpn(
        AppConfig::labelID(), deviceID, key, kRegisterDeviceType, false,
        [this, alive = std::weak_ptr<char>(m_alive)](bool success, const QString &username, const QString &password,
                                                     const NQErrorOpt &error) {
            if (error || !success || username.isEmpty() || password.isEmpty()) {
                if (!alive.lock())
                    return;
                NQLog::line(QStringLiteral("|SplashVC| registerVpn FAILED: %1")
                                .arg(error ? error->debugDescription() : QStringLiteral("(null)")));
                showErrorMessage(QStringLiteral("It seems that your connection to our server is lost.\nPlease fix "
                                                "connection and try again.\nCode: 5"),
                                 QStringLiteral("Connection Error"), {}, [this] { registerVpn(); });
                return;
            }
            NQLog::line(QStringLiteral("|SplashVC| registerVpn Success"));
            // The account is the device's, not this screen's: it is stored even when the
            // screen has gone in the meantime (an alert's Continue, a restart).
            MainQueue::after(kCredentialsStoreDelayMs, [this, alive, username, password] {
                AppStorageManager::sharedManager().storeVPNCredentials(username, password);
                if (alive.lock())
                    openHome();
            });
        });
}

void SplashVC::openHome()
{
    NQLog::line(QStringLiteral("|SplashVC| openHome."));
    if (AppUpdateManager::sharedManager().isDownloading())
        return;
    MainQueue::async(guarded([this] {
        // Once home has replaced this screen there is no window left to change.
        if (m_state == State::Left)
            return;
        viewWillDisappear();
        setState(State::Left);
        m_window.openHome(m_engine.localizedString(QStringLiteral("<app_name>")));
    }));
}

void SplashVC::notificationsSubscribe()
{
    if (m_notificationsSubscribed) {
        logger().info(QStringLiteral("Notifications: Subscribe FAILED with error: 'Already subscribed.'."));
        return;
    }
    m_notificationsSubscribed = true;
    logger().info(QStringLiteral("Notifications: Subscribe."));
    m_appReadyToken = EventBus::defaultCenter().addObserverForName(
        QLatin1String(Events::NOTIFICATION_APP_READY), [this, alive = std::weak_ptr<char>(m_alive)](const Event &) {
            if (!alive.lock())
                return;
            NQLog::line(QStringLiteral("|SplashVC| NT_APP_READY"));
            MainQueue::after(kAppReadyOpenHomeDelayMs, guarded([this] { openHome(); }));
        });
}

void SplashVC::notificationsUnsubscribe()
{
    // Only target-action registrations go; the block observer stays while the screen exists.
    EventBus::defaultCenter().removeObserver(this);
}
