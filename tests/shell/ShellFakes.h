#pragma once

// Stand-ins for the windowing side and the engine, and a sandbox that points the platform, the
// settings store and the keychain at a temporary folder.

#include "foundation/AppStorageManager.h"
#include "foundation/BundleExtended.h"
#include "foundation/EventBus.h"
#include "foundation/FileSecretBackend.h"
#include "platform/linux/LinuxPlatform.h"
#include "shell/AlertPresenter.h"
#include "shell/ShellEngine.h"
#include "shell/UrlOpener.h"
#include "shell/WindowHost.h"
#include "support/ClockGuard.h"

#include <QStringList>
#include <QTemporaryDir>

// Every fake writes what it was asked into one journal, so tests can check the order.
struct Journal {
    QStringList entries;
    int count(const QString &entry) const { return entries.count(entry); }
    qsizetype indexOf(const QString &entry) const { return entries.indexOf(entry); }
};

class FakeWindow : public WindowHost {
public:
    explicit FakeWindow(Journal &journal) : m_journal(journal) {}
    void createMainWindow(SplashVC &) override { m_journal.entries << QStringLiteral("window.create"); }
    void dropMainWindow() override { m_journal.entries << QStringLiteral("window.drop"); }
    void showMainWindow() override { m_journal.entries << QStringLiteral("window.show"); }
    void activateWithoutWindow() override { m_journal.entries << QStringLiteral("window.activateHidden"); }
    void miniaturizeMainWindow() override { m_journal.entries << QStringLiteral("window.miniaturize"); }
    void deminiaturizeMainWindow() override { m_journal.entries << QStringLiteral("window.deminiaturize"); }
    void setupStatusItem(const StatusMenu &menu) override
    {
        lastMenu = menu;
        m_journal.entries << QStringLiteral("statusItem");
    }
    void openHome(const QString &title) override { m_journal.entries << QStringLiteral("home:") + title; }
    void setActivationPolicyProhibited() override { m_journal.entries << QStringLiteral("window.prohibited"); }
    StatusMenu lastMenu;

private:
    Journal &m_journal;
};

class FakeAlerts : public AlertPresenter {
public:
    void runModal(const AlertRequest &alert, std::function<void(long)> done) override
    {
        shown << alert;
        pending = std::move(done);
    }
    // Presses the button with `tag` on the alert shown last.
    void press(long tag)
    {
        auto done = std::move(pending);
        pending = nullptr;
        done(tag);
    }
    QList<AlertRequest> shown;
    std::function<void(long)> pending;
};

class FakeUrlOpener : public UrlOpener {
public:
    bool openUrl(const QString &url) override
    {
        opened << url;
        return true;
    }
    QStringList opened;
};

// The engine's requests are recorded and answered by the test (or not at all).
class FakeEngine : public ShellEngine {
public:
    explicit FakeEngine(Journal &journal) : m_journal(journal) {}
    void labelsettings(const QString &, const QString &, const QString &, int, const QString &, const QString &,
                       LabelCompletion completion) override
    {
        m_journal.entries << QStringLiteral("engine.labelsettings");
        labelCompletion = std::move(completion);
    }
    void fetchBrowserExtensionConfig(const QString &, const QString &browser, ExtensionCompletion completion) override
    {
        m_journal.entries << QStringLiteral("engine.extensionConfig:") + browser;
        extensionCompletion = std::move(completion);
    }
    void registerVpn(const QString &, const QString &, const QString &, int deviceType, bool keyFromStore,
                     RegisterCompletion completion) override
    {
        m_journal.entries << QStringLiteral("engine.registerVpn:%1:%2").arg(deviceType).arg(keyFromStore);
        registerCompletion = std::move(completion);
    }
    void checkIsInternetAvailable(std::function<void(const QString &)> completion) override
    {
        m_journal.entries << QStringLiteral("engine.checkInternet");
        internetCompletion = std::move(completion);
    }
    QString appLanguageCode() override { return QStringLiteral("en"); }
    QString localizedString(const QString &key) override { return QStringLiteral("L(") + key + QLatin1Char(')'); }
    void stopVPNConnection() override { m_journal.entries << QStringLiteral("engine.stopVPN"); }
    void startExtensionServer() override { m_journal.entries << QStringLiteral("engine.startExtension"); }
    void flushExtensionStorage() override { m_journal.entries << QStringLiteral("engine.flushExtension"); }

    LabelCompletion labelCompletion;
    ExtensionCompletion extensionCompletion;
    RegisterCompletion registerCompletion;
    std::function<void(const QString &)> internetCompletion;

private:
    Journal &m_journal;
};

// A private world for one test: platform folders, settings file and keychain file.
class ShellSandbox {
public:
    ShellSandbox() : ShellSandbox(LinuxPlatform::Overrides{}) {}
    explicit ShellSandbox(LinuxPlatform::Overrides overrides)
    {
        const QString root = dir.path();
        if (overrides.applicationSupportDirectory.isEmpty())
            overrides.applicationSupportDirectory = root + QStringLiteral("/data");
        if (overrides.downloadsDirectory.isEmpty())
            overrides.downloadsDirectory = root + QStringLiteral("/Downloads");
        if (overrides.autostartDirectory.isEmpty())
            overrides.autostartDirectory = root + QStringLiteral("/autostart");
        if (overrides.temporaryDirectory.isEmpty())
            overrides.temporaryDirectory = root + QStringLiteral("/tmp");
        m_overrides = overrides;
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        auto secrets = std::make_shared<FileSecretBackend>(root + QStringLiteral("/secrets.json"));
        SecretBackend::setSystemDefaultForTesting(secrets);
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            root + QStringLiteral("/settings.conf"), KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), secrets)));
        // Known to the run, so the start-up's requests go out at once, as after the first launch.
        AppStorageManager::sharedManager().keepDeviceUUIDForThisRun(QStringLiteral("SHELL-TEST-DEVICE"));
    }
    ~ShellSandbox()
    {
        AppStorageManager::setSharedManagerForTesting(nullptr);
        SecretBackend::setSystemDefaultForTesting(nullptr);
        Platform::setInstance(nullptr);
    }
    ShellSandbox(const ShellSandbox &) = delete;
    ShellSandbox &operator=(const ShellSandbox &) = delete;

    AppStorageManager &store() { return AppStorageManager::sharedManager(); }
    QString dataDir() const { return m_overrides.applicationSupportDirectory + QStringLiteral("/com.pelorin.vpn.mac"); }
    const LinuxPlatform::Overrides &overrides() const { return m_overrides; }

    QTemporaryDir dir;

private:
    LinuxPlatform::Overrides m_overrides;
};

// One test's whole world: the sandbox, the fakes writing to one journal, a clean event bus,
// version 2.1.0 (45) and the main queue on a test clock.
struct ShellWorld {
    explicit ShellWorld(const LinuxPlatform::Overrides &overrides = {}) : sandbox(overrides)
    {
        EventBus::defaultCenter().reset();
        BundleExtended::setInfoDictionaryForTesting(
            QVariantMap{{BundleExtended::kShortVersionKey, QStringLiteral("2.1.0")},
                        {BundleExtended::kVersionKey, QStringLiteral("45")},
                        {BundleExtended::kNameKey, QStringLiteral("PelorinVPN")}});
    }
    ~ShellWorld()
    {
        EventBus::defaultCenter().reset();
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
    }
    ShellSandbox sandbox;
    Journal journal;
    FakeEngine engine{journal};
    FakeWindow window{journal};
    FakeAlerts alerts;
    FakeUrlOpener urls;
    ClockGuard clock;
    AppStorageManager &store() { return sandbox.store(); }
};
