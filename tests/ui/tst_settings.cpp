#include "UiFakes.h"
#include "support/ClockGuard.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/LocalString.h"
#include "ui/SettingsVC.h"
#include "vpn/VpnState.h"

#include <QtTest>

class TstSettings : public QObject {
    Q_OBJECT

    std::unique_ptr<ClockGuard> m_clock;
    std::unique_ptr<UiFixture> m_fx;
    std::unique_ptr<SettingsVC> m_vc;
    int m_restarts = 0;

    void flush()
    {
        for (int i = 0; i < 3; ++i)
            m_clock->advance(0);
    }
    void chooseLanguage(const QString &code, const QString &name)
    {
        EventBus::defaultCenter().post(Events::LANGUAGE_SELECTED, {{code, name}});
        flush();
    }

private slots:
    void init()
    {
        EventBus::defaultCenter().reset();
        m_clock = std::make_unique<ClockGuard>();
        m_fx = std::make_unique<UiFixture>();
        LocalString::setOverridesForTesting({QStringList{QStringLiteral("en")}, std::nullopt, std::nullopt});
        m_fx->storage.storeAppLanguageCode(QStringLiteral("en"));
        m_vc = std::make_unique<SettingsVC>(m_fx->services);
        m_restarts = 0;
        EventBus::defaultCenter().addObserver(this, Events::APP_RESTART, [this](const Event &) { ++m_restarts; });
        m_vc->viewWillAppear();
    }
    void cleanup()
    {
        EventBus::defaultCenter().removeObserver(this);
        m_vc.reset();
        m_fx.reset();
        m_clock.reset();
    }

    void switchingBackAndAutoconnectLeaveApplyDisabled()
    {
        QVERIFY(!m_vc->buttonApplyEnabled());
        m_vc->clickCompression(true);
        QVERIFY(m_vc->buttonApplyEnabled());
        m_vc->clickCompression(false);
        QVERIFY(!m_vc->buttonApplyEnabled());
        m_vc->clickAutoconnect(true);
        QVERIFY(!m_vc->buttonApplyEnabled());
        m_vc->clickExitClose(!m_vc->switchExitOnClose.on);
        QVERIFY(m_vc->buttonApplyEnabled());
    }

    // Also after choosing another language first: the pending restart is given up again.
    void choosingTheCurrentLanguageChangesNothing()
    {
        chooseLanguage(QStringLiteral("de"), QStringLiteral("Deutsch"));
        QVERIFY(m_vc->changesNeedRestart());
        chooseLanguage(QStringLiteral("en"), LocalString::appLanguageName());
        QVERIFY(!m_vc->buttonApplyEnabled());
        QVERIFY(!m_vc->changesNeedRestart());
        QVERIFY(!m_vc->languageListVisible());
        m_vc->clickApply();
        m_clock->advance(5000);
        QCOMPARE(m_restarts, 0);
        QCOMPARE(m_fx->vpn.stops, 0);
    }

    // Connected: the tunnel is stopped first and the restart follows a second later.
    void languageChangeRestarts()
    {
        for (const bool connected : {false, true}) {
            m_fx->storage.storeVPNStatus(connected ? VpnStateConnected : VpnStateDisconnected);
            const int restarts = m_restarts;
            m_vc->clickLangauge();
            QVERIFY(m_vc->languageListVisible());
            const QString code = connected ? QStringLiteral("de") : QStringLiteral("fi");
            chooseLanguage(code, code + QStringLiteral("-name"));
            QCOMPARE(m_vc->buttonLanguagesTitle(), code + QStringLiteral("-name"));
            QVERIFY(!m_vc->languageListVisible());
            QVERIFY(m_vc->buttonApplyEnabled());
            m_vc->clickApply();
            QCOMPARE(m_fx->vpn.stops, connected ? 1 : 0);
            QCOMPARE(m_fx->storage.appLanguageCode(), code);
            QVERIFY(!m_vc->overlayVisible());
            m_clock->advance(connected ? SettingsVC::kRestartAfterStopMs - 1 : 0);
            QCOMPARE(m_restarts, restarts + (connected ? 0 : 1));
            m_clock->advance(connected ? 1 : SettingsVC::kRestartAfterStopMs);
            QCOMPARE(m_restarts, restarts + 1);
            QVERIFY(!m_vc->changesNeedRestart());
        }
    }

    void applyStoresTheSwitchesAndTheLoginItem()
    {
        m_vc->clickRunStartup(true);
        m_vc->clickAutoUpdate(true);
        m_vc->clickCompression(true);
        m_vc->clickApply();
        QVERIFY(m_fx->storage.appAutorunEnabled());
        QVERIFY(m_fx->storage.autoupdate());
        QVERIFY(m_fx->storage.vpnDataCompressionEnabled());
        QCOMPARE(m_fx->loginItems.calls, QList<bool>{true});
        QVERIFY(!m_vc->buttonApplyEnabled());
        m_vc->clickRunStartup(false);
        m_vc->clickApply();
        QCOMPARE(m_fx->loginItems.calls, (QList<bool>{true, false}));
        m_clock->advance(5000);
        QCOMPARE(m_restarts, 0);
    }

    void adBlockerWithoutChromeTurnsItselfOffAndOpensChrome()
    {
        m_fx->storage.setLabelConfigBrowserChromeLink(QStringLiteral("https://store.example/detail/quellon/x"));
        m_fx->extension.chrome = false;
        m_vc->clickAdBlocker(true);
        flush();
        QVERIFY(!m_vc->switchAdBlocking.on);
        QCOMPARE(m_fx->chrome.launches, QList<QStringList>{{QStringLiteral("https://store.example/detail/quellon/x")}});
        QVERIFY(m_fx->extension.sent.isEmpty());
        QVERIFY(!m_fx->storage.adsBlockerEnabled());

        m_fx->extension.chrome = true;
        m_fx->extension.extension = false;
        m_fx->chrome.failWith = NQError(QStringLiteral("d"), 2, {{NQError::kLocalizedDescriptionKey, "no chrome"}});
        m_vc->clickAdBlocker(true);
        QCOMPARE(m_fx->alerts.shown.size(), 1);
        QCOMPARE(m_fx->alerts.shown[0].title, QStringLiteral("Cannot open Google Chrome"));
        QCOMPARE(m_fx->alerts.shown[0].message, QStringLiteral("no chrome"));
    }

    void adBlockerWithTheExtensionTellsItAndFollowsItsState()
    {
        m_vc->clickAdBlocker(true);
        flush();
        QCOMPARE(m_fx->extension.sent, QStringList{"ON"});
        QVERIFY(m_vc->switchAdBlocking.on);
        m_vc->clickAdBlocker(false);
        flush();
        QCOMPARE(m_fx->extension.sent, (QStringList{"ON", "OFF"}));
        QVERIFY(!m_vc->switchAdBlocking.on);

        // While shown, the switch follows the stored flag every two seconds.
        QVERIFY(m_vc->refreshTimerActive());
        m_fx->storage.storeAdsBlockerEnabled(true);
        m_clock->advance(SettingsVC::kAdBlockerRefreshMs);
        QVERIFY(m_vc->switchAdBlocking.on);
        m_vc->viewDidDisappear();
        QVERIFY(!m_vc->refreshTimerActive());
        m_fx->storage.storeAdsBlockerEnabled(false);
        m_clock->advance(SettingsVC::kAdBlockerRefreshMs * 2);
        QVERIFY(m_vc->switchAdBlocking.on);
    }

    void reconnectPromptAppliesAfterItCloses()
    {
        chooseLanguage(QStringLiteral("de"), QStringLiteral("Deutsch"));
        m_vc->showNeedReconnect();
        QCOMPARE(m_fx->alerts.shown.size(), 1);
        QCOMPARE(m_fx->alerts.shown[0].message, QStringLiteral("Please reconect to apply changes."));
        flush();
        QCOMPARE(m_restarts, 1);
    }

    // Saved at once, both ways, and never waits for Apply.
    void killSwitchIsSavedWhenClicked()
    {
        for (const bool on : {true, false}) {
            m_vc->clickKillSwitch(on);
            QCOMPARE(m_fx->vpn.killSwitch, on);
            QCOMPARE(m_vc->switchKillSwitch.on, on);
            QVERIFY(!m_vc->buttonApplyEnabled());
        }
    }
};

QTEST_GUILESS_MAIN(TstSettings)
#include "tst_settings.moc"
