// The start-up screen's error alert.
#include "shell/SplashVC.h"

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "shell/AlertPresenter.h"
#include "shell/NQApplication.h"
#include "shell/ShellEngine.h"
#include "vpn/VpnState.h"

#include <algorithm>

namespace {
const OsLog &alertLogger()
{
    static const OsLog log("GUI", "NQCC_BUNDLE_ID.splash");
    return log;
}

QString yesNo(bool value)
{
    return value ? QStringLiteral("YES") : QStringLiteral("NO");
}

QString orNull(const QString &text)
{
    return text.isNull() ? QStringLiteral("(null)") : text;
}
} // namespace

void SplashVC::showAlertNoInternetWithContinueBlock(Block continueBlock, Block retryBlock)
{
    showErrorMessage(m_engine.localizedString(QStringLiteral("It seems that your connection to our server is lost.")),
                     m_engine.localizedString(QStringLiteral("Connection Error")), std::move(continueBlock),
                     std::move(retryBlock), true, true);
}

void SplashVC::showErrorMessage(const QString &message, const QString &title, Block continueBlock, Block retryBlock,
                                bool restartOptionEnabled, bool quitOptionEnabled)
{
    MainQueue::async(guarded([=, this] {
        alertLogger().info(QStringLiteral("Show Error Alert: { title: '%1', message: '%2'}, continueOption: '%3', "
                                          "retryOption: '%4', restartOption: '%5, quitOption: '%6' }.")
                               .arg(orNull(title), orNull(message), yesNo(bool(continueBlock)), yesNo(bool(retryBlock)),
                                    yesNo(restartOptionEnabled), yesNo(quitOptionEnabled)));
        AlertRequest alert;
        alert.message = message;
        alert.title = title;
        const auto add = [&](const char *key, long tag) {
            alert.buttons.append({m_engine.localizedString(QLatin1String(key)), tag});
        };
        if (continueBlock)
            add("Continue", kContinueTag);
        if (retryBlock)
            add("Retry", kRetryTag);
        if (restartOptionEnabled)
            add("Restart", kRestartTag);
        if (quitOptionEnabled)
            add("Quit", kQuitTag);
        setState(State::AlertShown);
        m_alerts.runModal(alert, [=, this, alive = std::weak_ptr<char>(m_alive)](long answer) {
            if (!alive.lock())
                return;
            // An alert closed by its window's own button answers with no button of ours: that
            // is the default (first) choice, as Return would be, not a dead end.
            const bool offered =
                std::ranges::any_of(alert.buttons, [answer](const auto &b) { return b.tag == answer; });
            const long result = offered || alert.buttons.isEmpty() ? answer : alert.buttons.first().tag;
            alertLogger().info(QStringLiteral("Show Error Alert: result: '%1'.").arg(result));
            handleAlertResult(result, continueBlock, retryBlock, restartOptionEnabled, quitOptionEnabled);
        });
    }));
}

void SplashVC::handleAlertResult(long result, const Block &continueBlock, const Block &retryBlock, bool restart,
                                 bool quit)
{
    if (continueBlock && result == kContinueTag) {
        continueBlock();
    } else if (retryBlock && result == kRetryTag) {
        retryBlock();
    } else if (restart && result == kRestartTag) {
        if (AppStorageManager::sharedManager().getVPNStatus() == VpnStateConnected)
            m_engine.stopVPNConnection();
        MainQueue::after(kRestartDelayMs, [] { EventBus::defaultCenter().post(QLatin1String(Events::APP_RESTART)); });
    } else if (quit && result == kQuitTag) {
        if (NQApplication *app = NQApplication::current())
            app->terminate();
    } else {
        alertLogger().fault(QStringLiteral("Show Error Alert: FATAL ERROR: 'Unknown option - %1'.").arg(result));
    }
}
