#pragma once

#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "shell/AlertPresenter.h"
#include "shell/UrlOpener.h"
#include "ui/ChromeLauncher.h"
#include "ui/ExtensionControl.h"
#include "ui/LocationLookup.h"
#include "ui/LoginItemControl.h"
#include "ui/UiServices.h"
#include "ui/UpdateService.h"
#include "ui/VpnEngine.h"

#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// Stand-ins for everything the screens talk to. Each records what it was asked and answers
// what the test set up; completions are kept so a test decides when (and how) they finish.
struct FakeVpnEngine : VpnEngine {
    QList<NQVPNCountry> countries;
    std::optional<NQVPNCountry> current;
    StateCallback callback;
    QList<CountriesCompletion> pendingCountries;
    QList<QPair<qint64, ConfigCompletion>> pendingConfigs;
    int stops = 0;
    bool killSwitch = false;
    bool blocked = false;
    BlockedCallback blockedCallback;

    QList<NQVPNCountry> availableCountries() const override { return countries; }
    std::optional<NQVPNCountry> currentCountry() const override { return current; }
    void setCurrentCountry(const std::optional<NQVPNCountry> &country) override { current = country; }
    void getCountries(CountriesCompletion completion) override { pendingCountries << completion; }
    void getCountryVPNConfig(qint64 id, ConfigCompletion completion) override
    {
        pendingConfigs << qMakePair(id, completion);
    }
    // Like the engine: Connecting when the client is launched; Disconnecting, the cluster
    // forgotten, then Disconnected when stopped. Connected comes from the test (tunnel output).
    void startVPNConnectionWithConfigContent(const QString &, const QString &) override { report(2); }
    void stopVPNConnection() override
    {
        ++stops;
        report(5);
        current.reset();
        report(1);
    }
    void report(int state)
    {
        if (callback)
            callback(state);
    }
    bool hasConnectionStateCallback() const override { return bool(callback); }
    void setOnConnectionStateChange(StateCallback cb) override { callback = std::move(cb); }
    QString flagForCountryCode(const QString &code) const override
    {
        if (code.isNull() || code == QLatin1String("Unknown"))
            return QStringLiteral("flags/flag_unknown.svg");
        const QString known = code.toLower();
        return QStringList{"de", "ua", "us"}.contains(known) ? QStringLiteral("flags/%1.svg").arg(known) : QString();
    }
    bool killSwitchEnabled() const override { return killSwitch; }
    void setKillSwitchEnabled(bool on) override { killSwitch = on; }
    bool trafficBlocked() const override { return blocked; }
    void setOnTrafficBlockedChange(BlockedCallback cb) override { blockedCallback = std::move(cb); }
    void setHoldBlockBetweenRuns(bool) override {}
};

struct FakeLocation : LocationLookup {
    QList<Completion> pending;
    void checkMyLocation(Completion completion) override { pending << completion; }
    // Finishes the oldest pending lookup.
    void answer(const QString &ip, const QString &code, const QString &error = QString())
    {
        pending.takeFirst()(ip, code, QString(), error);
    }
};

// Answers at once with `answer`; with `hold`, keeps the alert open until the test calls `pending`.
struct FakeAlerts : AlertPresenter {
    QList<AlertRequest> shown;
    long answer = kDefaultButtonTag;
    bool hold = false;
    std::function<void(long)> pending;
    void runModal(const AlertRequest &alert, std::function<void(long)> done) override
    {
        shown << alert;
        if (hold)
            pending = std::move(done);
        else
            done(answer);
    }
};

struct FakeUrls : UrlOpener {
    bool openUrl(const QString &) override { return true; }
};

struct FakeChrome : ChromeLauncher {
    QList<QStringList> launches;
    NQErrorOpt failWith;
    NQErrorOpt openGoogleChrome(const QStringList &arguments) override
    {
        launches << arguments;
        return failWith;
    }
};

struct FakeExtension : ExtensionControl {
    AppStorageManager *storage = nullptr;
    bool chrome = true;
    bool extension = true;
    QStringList sent;
    bool isChromeInstalled() override { return chrome; }
    bool isChromeExtensionInstalled() override { return extension; }
    // Like the bridge, the commands store the flag before telling the extensions.
    void sendEnableAdsBlocker() override
    {
        storage->storeAdsBlockerEnabled(true);
        sent << QStringLiteral("ON");
    }
    void sendDisableAdsBlocker() override
    {
        storage->storeAdsBlockerEnabled(false);
        sent << QStringLiteral("OFF");
    }
};

struct FakeLoginItems : LoginItemControl {
    QList<bool> calls;
    bool appIsInLoginItems() override { return !calls.isEmpty() && calls.last(); }
    void setLaunchAtLogin(bool enabled) override { calls << enabled; }
};

struct FakeUpdates : UpdateService {
    QList<std::function<void(bool)>> checks;
    int downloads = 0;
    void checkForUpdateWithCompletion(std::function<void(bool)> completion) override { checks << completion; }
    void downloadAndInstallPKG() override { ++downloads; }
};

// A complete set of fakes over a settings store in a private folder, installed as the
// process-wide store too (the interface language is read from there).
struct UiFixture {
    QTemporaryDir dir;
    AppStorageManager &storage;
    FakeVpnEngine vpn;
    FakeLocation location;
    FakeAlerts alerts;
    FakeUrls urls;
    FakeChrome chrome;
    FakeExtension extension;
    FakeLoginItems loginItems;
    FakeUpdates updates;
    UiServices services{vpn, location, alerts, urls, chrome, extension, loginItems, updates, storage};

    UiFixture() : storage(install(dir)) { extension.storage = &storage; }
    ~UiFixture() { AppStorageManager::setSharedManagerForTesting(nullptr); }

    static AppStorageManager &install(const QTemporaryDir &dir)
    {
        auto store = std::make_unique<AppStorageManager>(
            dir.filePath(QStringLiteral("settings.conf")),
            KeychainStore(QStringLiteral("com.pelorin.vpn.mac"),
                          std::make_shared<FileSecretBackend>(dir.filePath(QStringLiteral("s.json")))));
        AppStorageManager &ref = *store;
        AppStorageManager::setSharedManagerForTesting(std::move(store));
        return ref;
    }
};

inline NQVPNCountry country(const QString &name, const QString &iso, const QString &continent, qint64 id = 1,
                            bool isDefault = false)
{
    NQVPNCountry c;
    c.countryName = name;
    c.countryIso = iso;
    c.continent = continent;
    c.countryId = id;
    c.isDefault = isDefault;
    c.serverAddress = QStringLiteral("10.0.0.%1").arg(id);
    return c;
}

// A European cluster named `name` (its code: the name's first two letters).
inline NQVPNCountry eu(const char *name, qint64 id = 1, bool isDefault = false)
{
    const QString n = QString::fromLatin1(name);
    return country(n, n.left(2).toUpper(), QStringLiteral("Europe"), id, isDefault);
}
