#include "shell/HeadlessRunner.h"

#include "foundation/AppStorageManager.h"
#include "foundation/MainQueue.h"
#include "foundation/StringAddition.h"
#include "shell/AlertPresenter.h"
#include "shell/AppDelegate.h"
#include "shell/DefaultShellEngine.h"
#include "shell/UrlOpener.h"
#include "shell/WindowHost.h"
#include "vpn/NQVPNManager.h"
#include "vpn/TunnelClientEnd.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTextStream>

#include <algorithm>

namespace {
QString stateName(int state)
{
    switch (state) {
    case VpnStateAuthFailed:
        return QStringLiteral("authentication failed");
    case VpnStateDisconnected:
        return QStringLiteral("disconnected");
    case VpnStateConnecting:
        return QStringLiteral("connecting");
    case VpnStateConnected:
        return QStringLiteral("connected");
    case VpnStateDisconnecting:
        return QStringLiteral("disconnecting");
    default:
        return QStringLiteral("unknown");
    }
}

// No window: only the moment the home screen would open matters.
class ConsoleWindow : public WindowHost {
public:
    std::function<void()> onHome;
    void createMainWindow(SplashVC &) override {}
    void dropMainWindow() override {}
    void showMainWindow() override {}
    void activateWithoutWindow() override {}
    void miniaturizeMainWindow() override {}
    void deminiaturizeMainWindow() override {}
    void setupStatusItem(const StatusMenu &) override {}
    void openHome(const QString &) override
    {
        if (onHome)
            onHome();
    }
    void setActivationPolicyProhibited() override {}
};

class ConsoleUrls : public UrlOpener {
public:
    explicit ConsoleUrls(QTextStream &err) : m_out(err) {}
    bool openUrl(const QString &url) override
    {
        m_out << "Open in a browser: " << url << Qt::endl;
        return true;
    }

private:
    QTextStream &m_out;
};

// Answers alerts as a patient user would: Retry a few times, then give up.
class ConsoleAlerts : public AlertPresenter {
public:
    explicit ConsoleAlerts(QTextStream &err) : m_err(err) {}
    std::function<void()> onGiveUp;
    int retries = 0;
    void runModal(const AlertRequest &alert, std::function<void(long)> done) override
    {
        m_err << "Alert: " << alert.title << ": " << QString(alert.message).replace(QLatin1Char('\n'), QLatin1Char(' '))
              << Qt::endl;
        const auto has = [&](long tag) {
            return std::ranges::any_of(alert.buttons, [tag](const AlertRequest::Button &b) { return b.tag == tag; });
        };
        if (has(1) && retries < HeadlessRunner::kMaxRetries) {
            ++retries;
            m_err << "  retrying (" << retries << "/" << HeadlessRunner::kMaxRetries << ")" << Qt::endl;
            done(1);
            return;
        }
        m_err << "  giving up" << Qt::endl;
        onGiveUp();
    }

private:
    QTextStream &m_err;
};
} // namespace

struct HeadlessRunner::Impl {
    Impl(Options o, QTextStream &outStream, QTextStream &errStream)
        : options(std::move(o)), out(outStream), err(errStream), urls(errStream), alerts(errStream),
          app(options.arguments, [this] { loopEnding(); }),
          delegate(app, engine, window, alerts, urls, {.standardErrorIsTerminal = options.standardErrorIsTerminal})
    {
        if (!options.endLoop)
            options.endLoop = [](int code) { QCoreApplication::exit(code); };
    }

    Options options;
    QTextStream &out;
    QTextStream &err;
    DefaultShellEngine engine;
    ConsoleWindow window;
    ConsoleUrls urls;
    ConsoleAlerts alerts;
    NQApplication app;
    AppDelegate delegate;
    MainTimer sessionTimer;
    MainQueue::TaskId connectDeadline = 0;
    std::unique_ptr<QProcess> hook;
    qint64 sessionSeconds = 0;
    int exitCode = kExitDone;
    bool finishing = false;
    bool jobDone = false;      // what was asked has happened (see ExitCode)
    bool tunnelWanted = false; // a connect is under way or up, not stopped by a command
    bool wasConnected = false;
    bool homeOpened = false;
    QString clusterName;
    std::shared_ptr<char> alive = std::make_shared<char>();

    template <typename Fn> auto guarded(Fn fn)
    {
        return [this, weak = std::weak_ptr<char>(alive), fn = std::move(fn)](auto &&...args) {
            if (weak.lock())
                fn(std::forward<decltype(args)>(args)...);
        };
    }
    void list();
    void home();
    void connect(const NQVPNCountry &country);
    void stateChanged(int state);
    void clientEnded(const TunnelClientEnd &end);
    void runHook();
    void stopTunnel();
    void fail(int code, const QString &why);
    void finish(int code);
    void loopEnding();
};

HeadlessRunner::HeadlessRunner(Options options, QTextStream &out, QTextStream &err)
    : d(std::make_unique<Impl>(std::move(options), out, err))
{
    d->window.onHome = [this] { d->home(); };
    // The start-up alerts are all about reaching the backend.
    d->alerts.onGiveUp = [this] { d->fail(kExitBackendUnreachable, QStringLiteral("The backend cannot be reached")); };
}

HeadlessRunner::~HeadlessRunner()
{
    NQVPNManager::sharedManager().setOnConnectionStateChange(nullptr);
    NQVPNManager::sharedManager().setOnClientEnded(nullptr);
    if (d->connectDeadline)
        MainQueue::cancel(d->connectDeadline);
}

void HeadlessRunner::start()
{
    if (d->options.mode == Mode::List) {
        d->list();
        return;
    }
    d->err << "Starting up..." << Qt::endl;
    // A block a killed tunnel client (or this program) left would keep the network shut.
    NQVPNManager::sharedManager().clearKillSwitchLeftBehind();
    d->delegate.applicationDidFinishLaunching();
}

int HeadlessRunner::exitCode() const
{
    return d->exitCode;
}

void HeadlessRunner::interrupt(int signalNumber)
{
    d->err << "Signal " << signalNumber << ": ending" << Qt::endl;
    d->finish(d->jobDone ? kExitDone : kExitInterrupted);
}

void HeadlessRunner::command(const QString &line)
{
    const QString word = line.trimmed().toLower();
    if (word == QLatin1String("quit")) {
        d->finish(d->jobDone ? kExitDone : kExitInterrupted);
    } else if (word == QLatin1String("disconnect")) {
        const int state = AppStorageManager::sharedManager().getVPNStatus();
        if (state == VpnStateConnected || state == VpnStateConnecting) {
            d->err << "Disconnecting (type quit to end)..." << Qt::endl;
            d->stopTunnel();
        } else {
            d->err << "Not connected (type quit to end)" << Qt::endl;
        }
    } else if (word == QLatin1String("status")) {
        const int state = AppStorageManager::sharedManager().getVPNStatus();
        d->out << "State: " << state << " " << stateName(state) << Qt::endl;
        if (NQVPNManager::sharedManager().trafficBlocked())
            d->out << "Traffic outside the VPN: blocked" << Qt::endl;
    } else if (!word.isEmpty()) {
        d->err << "Unknown command '" << word << "' (status, disconnect, quit)" << Qt::endl;
    }
}

void HeadlessRunner::Impl::list()
{
    // The catalogue request needs only the device identifier and the configuration: no
    // account, bridge, login item or start-up delays.
    delegate.redirectConsoleLogToDocumentFolder();
    NQVPNManager::sharedManager().getCountries(
        guarded([this](const QList<NQVPNCountry> &countries, const NQErrorOpt &error) {
            if (error) {
                fail(kExitBackendUnreachable,
                     QStringLiteral("Cannot load the server list: ") + error->localizedDescription());
                return;
            }
            if (countries.isEmpty())
                err << "The backend offers no clusters" << Qt::endl;
            for (const NQVPNCountry &c : countries)
                out << c.countryIso << "\t" << c.countryName << (c.isDefault ? "\t(default)" : "")
                    << (c.enabled ? "" : "\t(disabled)") << Qt::endl;
            jobDone = true;
            finish(kExitDone);
        }));
}

void HeadlessRunner::Impl::home()
{
    if (homeOpened)
        return;
    homeOpened = true;
    alerts.retries = 0;
    err << "Ready." << Qt::endl;
    // Without a cluster to connect to, "Connect automatically" picks the last one.
    const AppStorageManager &storage = AppStorageManager::sharedManager();
    const bool automatic = options.mode == Mode::Idle && storage.appAutoconnectEnabled();
    if (options.mode == Mode::Idle && !automatic) {
        jobDone = true;
        return;
    }
    const QString last = automatic ? storage.lastConnectedCluster() : QString();
    if (automatic)
        err << "Connecting automatically (setting \"Connect automatically\")" << Qt::endl;
    NQVPNManager::sharedManager().getCountries(
        guarded([this, last](const QList<NQVPNCountry> &countries, const NQErrorOpt &error) {
            if (countries.isEmpty()) {
                fail(kExitBackendUnreachable,
                     QStringLiteral("Cannot load the server list") +
                         (error ? QStringLiteral(": ") + error->localizedDescription() : QString()));
                return;
            }
            const auto first = [&](auto &&match) {
                const auto it = std::ranges::find_if(countries, match);
                return it == countries.end() ? nullptr : &*it;
            };
            const NQVPNCountry *chosen = nullptr;
            if (options.mode == Mode::Connect)
                chosen = first([this](const NQVPNCountry &c) {
                    return c.countryName.compare(options.target, Qt::CaseInsensitive) == 0 ||
                           c.countryIso.compare(options.target, Qt::CaseInsensitive) == 0;
                });
            else if (!last.isEmpty())
                chosen = first([&last](const NQVPNCountry &c) { return c.countryName == last; });
            if (!chosen && options.mode != Mode::Connect)
                chosen = first([](const NQVPNCountry &c) { return c.isDefault; });
            if (!chosen && options.mode != Mode::Connect)
                chosen = &countries.first(); // no cluster marked default: the first one
            if (!chosen) {
                fail(kExitUsage, QStringLiteral("No cluster named '%1' (see --list)").arg(options.target));
                return;
            }
            connect(*chosen);
        }));
}

void HeadlessRunner::Impl::connect(const NQVPNCountry &country)
{
    NQVPNManager &vpn = NQVPNManager::sharedManager();
    clusterName = country.countryName;
    tunnelWanted = true;
    vpn.setCurrentCountry(country);
    // States and client ends arrive on the tunnel's I/O thread.
    vpn.setOnConnectionStateChange([this, weak = std::weak_ptr<char>(alive)](int state) {
        MainQueue::async([this, weak, state] {
            if (weak.lock())
                stateChanged(state);
        });
    });
    vpn.setOnClientEnded([this, weak = std::weak_ptr<char>(alive)](const TunnelClientEnd &end) {
        MainQueue::async([this, weak, end] {
            if (weak.lock())
                clientEnded(end);
        });
    });
    connectDeadline = MainQueue::after(
        kConnectTimeoutMs, guarded([this] {
            connectDeadline = 0;
            if (!wasConnected)
                fail(kExitCouldNotConnect,
                     QStringLiteral("No tunnel after %1 seconds: giving up").arg(kConnectTimeoutMs / 1000));
        }));
    err << "Connecting to " << country.countryName << " (" << country.countryIso << ")..." << Qt::endl;
    vpn.getCountryVPNConfig(
        country.countryId,
        guarded([this, name = country.countryName](const QString &ovpn, const QString &, const NQErrorOpt &error) {
            if (finishing)
                return;
            if (error || ovpn.isEmpty()) {
                fail(kExitBackendUnreachable,
                     QStringLiteral("Cannot get the profile of ") + name +
                         (error ? QStringLiteral(": ") + error->localizedDescription() : QString()));
                return;
            }
            NQVPNManager::sharedManager().startVPNConnectionWithConfigContent(ovpn, name);
        }));
}

void HeadlessRunner::Impl::stateChanged(int state)
{
    out << "State: " << state << " " << stateName(state) << Qt::endl;
    if (state == VpnStateConnected && !wasConnected) {
        wasConnected = true;
        sessionSeconds = 0;
        out << "Connected to " << clusterName << Qt::endl;
        sessionTimer.start(HeadlessRunner::kSessionTickMs, [this] {
            ++sessionSeconds;
            if (sessionSeconds % 10 == 0)
                err << "Session time: " << StringAddition::durationStringFromSeconds(sessionSeconds) << Qt::endl;
        });
        if (options.mode == Mode::Script)
            runHook();
        else
            jobDone = true;
    } else if (state == VpnStateAuthFailed) {
        fail(kExitCouldNotConnect, QStringLiteral("The server refused the VPN credentials"));
    } else if (state == VpnStateDisconnected) {
        if (sessionTimer.isActive()) {
            sessionTimer.stop();
            err << "Session ended after " << StringAddition::durationStringFromSeconds(sessionSeconds) << Qt::endl;
        }
        // A tunnel that ends by itself ends the run; one we stopped is already finishing or
        // was ended by a command.
        if (tunnelWanted && !finishing)
            fail(kExitCouldNotConnect,
                 wasConnected ? QStringLiteral("The tunnel went down") : QStringLiteral("The tunnel did not come up"));
    }
}

void HeadlessRunner::Impl::clientEnded(const TunnelClientEnd &end)
{
    if (!tunnelWanted || finishing)
        return;
    fail(kExitCouldNotConnect, end.message());
}

void HeadlessRunner::Impl::runHook()
{
    err << "Running traffic check: " << options.onConnectedCommand << Qt::endl;
    hook = std::make_unique<QProcess>();
    hook->setProcessChannelMode(QProcess::ForwardedChannels);
    QObject::connect(
        hook.get(), &QProcess::finished, hook.get(), guarded([this](int code, QProcess::ExitStatus status) {
            const bool ok = status == QProcess::NormalExit && code == 0;
            out << (ok ? "Traffic check passed" : "Traffic check FAILED") << " (status " << code << ")" << Qt::endl;
            jobDone = ok;
            finish(ok ? kExitDone : kExitCheckFailed);
        }));
    QObject::connect(hook.get(), &QProcess::errorOccurred, hook.get(), guarded([this](QProcess::ProcessError e) {
                         if (e == QProcess::FailedToStart)
                             fail(kExitCheckFailed, QStringLiteral("The traffic check could not start"));
                     }));
    hook->start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), options.onConnectedCommand});
}

void HeadlessRunner::Impl::stopTunnel()
{
    tunnelWanted = false;
    if (connectDeadline) {
        MainQueue::cancel(connectDeadline);
        connectDeadline = 0;
    }
    NQVPNManager::sharedManager().stopVPNConnection();
}

void HeadlessRunner::Impl::fail(int code, const QString &why)
{
    if (!finishing)
        err << why << Qt::endl;
    finish(code);
}

void HeadlessRunner::Impl::finish(int code)
{
    if (exitCode == kExitDone)
        exitCode = code;
    if (finishing)
        return;
    finishing = true;
    if (options.mode == Mode::List) {
        MainQueue::async(guarded([this] { options.endLoop(exitCode); }));
        return;
    }
    const int state = AppStorageManager::sharedManager().getVPNStatus();
    if (tunnelWanted && (state == VpnStateConnected || state == VpnStateConnecting)) {
        err << "Disconnecting..." << Qt::endl;
        stopTunnel();
    }
    // Leave the current callback first: the controller may end the event loop right away.
    MainQueue::async(guarded([this] { app.terminate(); }));
}

void HeadlessRunner::Impl::loopEnding()
{
    // Someone else ended the application (an update being installed): the job was cut short.
    if (!finishing) {
        finishing = true;
        if (exitCode == kExitDone)
            exitCode = kExitInterrupted;
        err << "The application is ending before the job was done" << Qt::endl;
    }
    options.endLoop(exitCode);
}
