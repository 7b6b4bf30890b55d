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

#include <QCoreApplication>
#include <QProcess>
#include <QTextStream>

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
    explicit ConsoleUrls(QTextStream &out) : m_out(out) {}
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
    explicit ConsoleAlerts(QTextStream &out) : m_out(out) {}
    std::function<void()> onGiveUp;
    int retries = 0;
    void runModal(const AlertRequest &alert, std::function<void(long)> done) override
    {
        m_out << "Alert: " << alert.title << ": " << QString(alert.message).replace(QLatin1Char('\n'), QLatin1Char(' '))
              << Qt::endl;
        const auto has = [&](long tag) {
            return std::ranges::any_of(alert.buttons, [tag](const AlertRequest::Button &b) { return b.tag == tag; });
        };
        if (has(1) && retries < HeadlessRunner::kMaxRetries) {
            ++retries;
            m_out << "  retrying (" << retries << "/" << HeadlessRunner::kMaxRetries << ")" << Qt::endl;
            done(1);
            return;
        }
        m_out << "  giving up" << Qt::endl;
        onGiveUp();
    }

private:
    QTextStream &m_out;
};
} // namespace

struct HeadlessRunner::Impl {
    Impl(Options o, QTextStream &stream)
        : options(std::move(o)), out(stream), urls(stream), alerts(stream),
          app(options.arguments, [this] { QCoreApplication::exit(exitCode); }),
          delegate(app, engine, window, alerts, urls)
    {
    }

    Options options;
    QTextStream &out;
    DefaultShellEngine engine;
    ConsoleWindow window;
    ConsoleUrls urls;
    ConsoleAlerts alerts;
    NQApplication app;
    AppDelegate delegate;
    MainTimer sessionTimer;
    std::unique_ptr<QProcess> hook;
    qint64 sessionSeconds = 0;
    int exitCode = 0;
    bool finishing = false;
    bool wasConnected = false;
    bool homeOpened = false;
    QString clusterName;
    std::shared_ptr<char> alive = std::make_shared<char>();

    void home();
    void connect(const NQVPNCountry &country);
    void stateChanged(int state);
    void runHook();
    void finish(int code);
};

HeadlessRunner::HeadlessRunner(Options options, QTextStream &out) : d(std::make_unique<Impl>(std::move(options), out))
{
    d->window.onHome = [this] { d->home(); };
    d->alerts.onGiveUp = [this] { d->finish(1); };
}

HeadlessRunner::~HeadlessRunner()
{
    NQVPNManager::sharedManager().setOnConnectionStateChange(nullptr);
}

void HeadlessRunner::start()
{
    d->out << "Starting up..." << Qt::endl;
    d->delegate.applicationDidFinishLaunching();
}

int HeadlessRunner::exitCode() const
{
    return d->exitCode;
}

void HeadlessRunner::finish(int exitCode)
{
    d->finish(exitCode);
}

void HeadlessRunner::command(const QString &line)
{
    const QString word = line.trimmed().toLower();
    if (word == QLatin1String("disconnect") || word == QLatin1String("quit")) {
        d->finish(0);
    } else if (word == QLatin1String("status")) {
        const int state = AppStorageManager::sharedManager().getVPNStatus();
        d->out << "State: " << state << " " << stateName(state) << Qt::endl;
    } else if (!word.isEmpty()) {
        d->out << "Unknown command '" << word << "' (status, disconnect, quit)" << Qt::endl;
    }
}

void HeadlessRunner::Impl::home()
{
    if (homeOpened)
        return;
    homeOpened = true;
    alerts.retries = 0;
    out << "Ready." << Qt::endl;
    if (options.mode == Mode::Idle)
        return;
    NQVPNManager::sharedManager().getCountries(
        [this, weak = std::weak_ptr<char>(alive)](const QList<NQVPNCountry> &countries, const NQErrorOpt &error) {
            if (!weak.lock())
                return;
            if (countries.isEmpty()) {
                out << "Cannot load the server list"
                    << (error ? QStringLiteral(": ") + error->localizedDescription() : QString()) << Qt::endl;
                finish(1);
                return;
            }
            if (options.mode == Mode::List) {
                for (const NQVPNCountry &c : countries)
                    out << c.countryIso << "\t" << c.countryName << (c.isDefault ? "\t(default)" : "")
                        << (c.enabled ? "" : "\t(disabled)") << Qt::endl;
                finish(0);
                return;
            }
            const NQVPNCountry *chosen = nullptr;
            for (const NQVPNCountry &c : countries) {
                const bool match = options.mode == Mode::Script
                                       ? c.isDefault
                                       : (c.countryName.compare(options.target, Qt::CaseInsensitive) == 0 ||
                                          c.countryIso.compare(options.target, Qt::CaseInsensitive) == 0);
                if (match && !chosen)
                    chosen = &c;
            }
            if (!chosen && options.mode == Mode::Script)
                chosen = &countries.first(); // no cluster marked default: the first one
            if (!chosen) {
                out << "No cluster named '" << options.target << "' (see --list)" << Qt::endl;
                finish(2);
                return;
            }
            connect(*chosen);
        });
}

void HeadlessRunner::Impl::connect(const NQVPNCountry &country)
{
    NQVPNManager &vpn = NQVPNManager::sharedManager();
    clusterName = country.countryName;
    vpn.setCurrentCountry(country);
    // States read from the client's output arrive on its I/O thread.
    vpn.setOnConnectionStateChange([this, weak = std::weak_ptr<char>(alive)](int state) {
        MainQueue::async([this, weak, state] {
            if (weak.lock())
                stateChanged(state);
        });
    });
    out << "Connecting to " << country.countryName << " (" << country.countryIso << ")..." << Qt::endl;
    vpn.getCountryVPNConfig(country.countryId, [this, name = country.countryName, weak = std::weak_ptr<char>(alive)](
                                                   const QString &ovpn, const QString &, const NQErrorOpt &error) {
        if (!weak.lock())
            return;
        if (error || ovpn.isEmpty()) {
            out << "Cannot get the profile of " << name
                << (error ? QStringLiteral(": ") + error->localizedDescription() : QString()) << Qt::endl;
            finish(1);
            return;
        }
        NQVPNManager::sharedManager().startVPNConnectionWithConfigContent(ovpn, name);
    });
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
                out << "Session time: " << StringAddition::durationStringFromSeconds(sessionSeconds) << Qt::endl;
        });
        if (options.mode == Mode::Script)
            runHook();
    } else if (state == VpnStateAuthFailed) {
        out << "The server refused the VPN credentials" << Qt::endl;
        finish(1);
    } else if (state == VpnStateDisconnected) {
        if (sessionTimer.isActive()) {
            sessionTimer.stop();
            out << "Session ended after " << StringAddition::durationStringFromSeconds(sessionSeconds) << Qt::endl;
        }
        // A tunnel that ends by itself ends the run; one we stopped is already finishing.
        if (!finishing)
            finish(1);
    }
}

void HeadlessRunner::Impl::runHook()
{
    out << "Running traffic check: " << options.onConnectedCommand << Qt::endl;
    hook = std::make_unique<QProcess>();
    hook->setProcessChannelMode(QProcess::ForwardedChannels);
    QObject::connect(hook.get(), &QProcess::finished, hook.get(),
                     [this, weak = std::weak_ptr<char>(alive)](int code, QProcess::ExitStatus status) {
                         if (!weak.lock())
                             return;
                         const bool ok = status == QProcess::NormalExit && code == 0;
                         out << (ok ? "Traffic check passed" : "Traffic check FAILED") << " (status " << code << ")"
                             << Qt::endl;
                         finish(ok ? 0 : 1);
                     });
    QObject::connect(hook.get(), &QProcess::errorOccurred, hook.get(),
                     [this, weak = std::weak_ptr<char>(alive)](QProcess::ProcessError e) {
                         if (weak.lock() && e == QProcess::FailedToStart) {
                             out << "Traffic check could not start" << Qt::endl;
                             finish(1);
                         }
                     });
    hook->start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), options.onConnectedCommand});
}

void HeadlessRunner::Impl::finish(int code)
{
    if (exitCode == 0)
        exitCode = code;
    if (finishing)
        return;
    finishing = true;
    const int state = AppStorageManager::sharedManager().getVPNStatus();
    if (state == VpnStateConnected || state == VpnStateConnecting) {
        out << "Disconnecting..." << Qt::endl;
        NQVPNManager::sharedManager().stopVPNConnection();
    }
    // Leave the current callback first: the controller may end the event loop right away.
    MainQueue::async([this, weak = std::weak_ptr<char>(alive)] {
        if (weak.lock())
            app.terminate();
    });
}
