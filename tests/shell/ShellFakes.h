#pragma once

// Stand-ins for the windowing side and the engine, and one test's private world: platform
// folders, settings file and keychain file in a temporary folder, version 2.1.0 (45), a clean
// event bus and the main queue on a test clock.

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
#include "support/Files.h"

#include <QStringList>
#include <QTemporaryDir>

inline bool anyStartsWith(const QStringList &lines, const QString &start)
{
    return std::ranges::any_of(lines, [&](const QString &l) { return l.startsWith(start); });
}

// The window, the engine, the alerts and the browser in one stand-in. The requests tests count
// go into one journal, in order; the engine's requests are answered by the test (or not at all)
// through the completions kept here.
class FakeShell : public WindowHost, public ShellEngine, public AlertPresenter, public UrlOpener {
public:
    void createMainWindow(SplashVC &) override { journal << QStringLiteral("window.create"); }
    void dropMainWindow() override { journal << QStringLiteral("window.drop"); }
    void showMainWindow() override { journal << QStringLiteral("window.show"); }
    void activateWithoutWindow() override { journal << QStringLiteral("window.activateHidden"); }
    void miniaturizeMainWindow() override { journal << QStringLiteral("window.miniaturize"); }
    void deminiaturizeMainWindow() override { journal << QStringLiteral("window.deminiaturize"); }
    void setupStatusItem(const StatusMenu &menu) override { lastMenu = menu; }
    void openHome(const QString &title) override { journal << QStringLiteral("home:") + title; }
    void setActivationPolicyProhibited() override { journal << QStringLiteral("window.prohibited"); }

    void labelsettings(const QString &, const QString &, const QString &, int, const QString &, const QString &,
                       LabelCompletion completion) override
    {
        labelCompletion = std::move(completion);
    }
    void fetchBrowserExtensionConfig(const QString &, const QString &, ExtensionCompletion completion) override
    {
        extensionCompletion = std::move(completion);
    }
    void registerVpn(const QString &, const QString &, const QString &, int deviceType, bool keyFromStore,
                     RegisterCompletion completion) override
    {
        journal << QStringLiteral("engine.registerVpn:%1:%2").arg(deviceType).arg(keyFromStore);
        registerCompletion = std::move(completion);
    }
    void checkIsInternetAvailable(std::function<void(const QString &)> completion) override
    {
        journal << QStringLiteral("engine.checkInternet");
        internetCompletion = std::move(completion);
    }
    QString appLanguageCode() override { return QStringLiteral("en"); }
    QString localizedString(const QString &key) override { return QStringLiteral("L(") + key + QLatin1Char(')'); }
    void stopVPNConnection() override { journal << QStringLiteral("engine.stopVPN"); }
    void startExtensionServer() override { journal << QStringLiteral("engine.startExtension"); }
    void flushExtensionStorage() override { journal << QStringLiteral("engine.flushExtension"); }

    void runModal(const AlertRequest &alert, std::function<void(long)> done) override
    {
        alerts << alert;
        pendingAlert = std::move(done);
    }
    // Presses the button with `tag` on the alert shown last.
    void press(long tag) { std::exchange(pendingAlert, nullptr)(tag); }

    bool openUrl(const QString &url) override
    {
        opened << url;
        return true;
    }

    int count(const char *entry) const { return int(journal.count(QLatin1String(entry))); }

    QStringList journal;
    StatusMenu lastMenu;
    LabelCompletion labelCompletion;
    ExtensionCompletion extensionCompletion;
    RegisterCompletion registerCompletion;
    std::function<void(const QString &)> internetCompletion;
    QList<AlertRequest> alerts;
    std::function<void(long)> pendingAlert;
    QStringList opened;
};

struct ShellWorld {
    explicit ShellWorld(LinuxPlatform::Overrides folders = {}) : overrides(std::move(folders))
    {
        overrides.applicationSupportDirectory = dir.filePath(QStringLiteral("data"));
        overrides.downloadsDirectory = dir.filePath(QStringLiteral("Downloads"));
        overrides.autostartDirectory = dir.filePath(QStringLiteral("autostart"));
        overrides.temporaryDirectory = dir.filePath(QStringLiteral("tmp"));
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        auto secrets = std::make_shared<FileSecretBackend>(dir.filePath(QStringLiteral("secrets.json")));
        SecretBackend::setSystemDefaultForTesting(secrets);
        AppStorageManager::setSharedManagerForTesting(
            std::make_unique<AppStorageManager>(dir.filePath(QStringLiteral("settings.conf")),
                                                KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), secrets)));
        // Known to the run, so the start-up's requests go out at once, as after the first launch.
        store().keepDeviceUUIDForThisRun(QStringLiteral("SHELL-TEST-DEVICE"));
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
        AppStorageManager::setSharedManagerForTesting(nullptr);
        SecretBackend::setSystemDefaultForTesting(nullptr);
        Platform::setInstance(nullptr);
    }

    AppStorageManager &store() { return AppStorageManager::sharedManager(); }
    QString dataDir() const { return overrides.applicationSupportDirectory + QStringLiteral("/com.pelorin.vpn.mac"); }

    QTemporaryDir dir;
    LinuxPlatform::Overrides overrides;
    FakeShell fake;
    ClockGuard clock;
};
