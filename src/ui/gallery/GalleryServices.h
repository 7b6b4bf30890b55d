#pragma once

// Canned collaborators for drawing the screens in chosen states. They answer what the
// gallery tells them; nothing here is used by the application.
#include "foundation/MainQueue.h"
#include "shell/UrlOpener.h"
#include "ui/ChromeLauncher.h"
#include "ui/ExtensionControl.h"
#include "ui/LocationLookup.h"
#include "ui/LoginItemControl.h"
#include "ui/UpdateService.h"
#include "ui/VpnEngine.h"
#include "vpn/FlagUtils.h"
#include "vpn/ServerLatencyProbe.h"

#include <QHash>
#include <QList>

struct GalleryVpn : VpnEngine {
    QList<NQVPNCountry> countries;
    std::optional<NQVPNCountry> current;
    StateCallback callback;
    QList<ConfigCompletion> configs;
    QList<NQVPNCountry> availableCountries() const override { return countries; }
    std::optional<NQVPNCountry> currentCountry() const override { return current; }
    void setCurrentCountry(const std::optional<NQVPNCountry> &c) override { current = c; }
    void getCountries(CountriesCompletion completion) override { completion(std::nullopt); }
    void getCountryVPNConfig(qint64, ConfigCompletion completion) override { configs << completion; }
    void startVPNConnectionWithConfigContent(const QString &, const QString &) override {}
    void stopVPNConnection() override {}
    bool hasConnectionStateCallback() const override { return bool(callback); }
    void setOnConnectionStateChange(StateCallback cb) override { callback = std::move(cb); }
    QString flagForCountryCode(const QString &code) const override
    {
        return FlagUtils::defaultInstance().getFlagForCountryCode(code);
    }
    bool killSwitch = false;
    bool blocked = false;
    BlockedCallback blockedCallback;
    bool killSwitchEnabled() const override { return killSwitch; }
    void setKillSwitchEnabled(bool on) override { killSwitch = on; }
    bool trafficBlocked() const override { return blocked; }
    void setOnTrafficBlockedChange(BlockedCallback cb) override { blockedCallback = std::move(cb); }
    void setHoldBlockBetweenRuns(bool) override {}
};

struct GalleryLocation : LocationLookup {
    void checkMyLocation(Completion completion) override
    {
        completion(QStringLiteral("203.0.113.24"), QStringLiteral("FI"), QStringLiteral("Finland"), QString());
    }
};

struct GalleryUrls : UrlOpener {
    bool openUrl(const QString &) override { return true; }
};
struct GalleryChrome : ChromeLauncher {
    NQErrorOpt openGoogleChrome(const QStringList &) override { return std::nullopt; }
};
struct GalleryExtension : ExtensionControl {
    bool isChromeInstalled() override { return true; }
    bool isChromeExtensionInstalled() override { return true; }
    void sendEnableAdsBlocker() override {}
    void sendDisableAdsBlocker() override {}
};
struct GalleryLoginItems : LoginItemControl {
    bool appIsInLoginItems() override { return true; }
    void setLaunchAtLogin(bool) override {}
};
struct GalleryUpdates : UpdateService {
    bool available = false;
    void checkForUpdateWithCompletion(std::function<void(bool)> completion) override { completion(available); }
    void downloadAndInstallPKG() override {}
};
// Answers as a server would, a moment later; addresses it does not know stay unanswered.
struct GalleryLatency : ServerLatencyProbe {
    QHash<QString, int> milliseconds;
    void measure(const QStringList &addresses, Each each) override
    {
        for (const QString &address : addresses) {
            const Result result = milliseconds.contains(address) ? Result(milliseconds.value(address)) : std::nullopt;
            MainQueue::async([each, address, result] { each(address, result); });
        }
    }
};
