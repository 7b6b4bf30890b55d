#include "ShellFakes.h"
#include "foundation/AppConfig.h"
#include "foundation/BundleExtended.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "shell/AppDelegate.h"
#include "shell/NQAppKit.h"
#include "shell/SplashVC.h"
#include "support/ClockGuard.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QSettings>
#include <QTest>

namespace {
QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QVariantMap settingsOf(const QString &path)
{
    QSettings settings(path, QSettings::NativeFormat);
    QVariantMap all;
    for (const QString &key : settings.allKeys())
        all.insert(key, settings.value(key));
    return all;
}
} // namespace

class TestAppDelegate : public QObject {
    Q_OBJECT

    std::unique_ptr<ShellSandbox> m_sandbox;
    std::unique_ptr<Journal> m_journal;
    std::unique_ptr<FakeEngine> m_engine;
    std::unique_ptr<FakeWindow> m_window;
    std::unique_ptr<FakeAlerts> m_alerts;
    std::unique_ptr<FakeUrlOpener> m_urls;
    std::unique_ptr<ClockGuard> m_clock;
    std::unique_ptr<NQApplication> m_app;
    std::unique_ptr<AppDelegate> m_delegate;
    int m_exits = 0;
    QStringList m_reopened;

    AppDelegate &launch(const QStringList &arguments, bool terminal = false)
    {
        m_delegate.reset();
        m_app = std::make_unique<NQApplication>(arguments, [this] { ++m_exits; });
        AppDelegate::Options options;
        options.launcherPath = m_sandbox->dir.filePath(QStringLiteral("no-launcher"));
        options.standardErrorIsTerminal = [terminal] { return terminal; };
        options.reopenStandardError = [this](const QString &path) {
            m_reopened << path;
            return true;
        };
        m_delegate = std::make_unique<AppDelegate>(*m_app, *m_engine, *m_window, *m_alerts, *m_urls, options);
        m_delegate->applicationDidFinishLaunching();
        return *m_delegate;
    }
    void answerLabels(const QString &postInstall, const QString &postUninstall = {}, NQErrorOpt error = {})
    {
        auto completion = std::move(m_engine->labelCompletion);
        completion(QStringLiteral("https://support.example"), postInstall, postUninstall, error);
    }

private slots:
    void init()
    {
        EventBus::defaultCenter().reset();
        BundleExtended::setInfoDictionaryForTesting(
            QVariantMap{{BundleExtended::kShortVersionKey, QStringLiteral("2.1.0")},
                        {BundleExtended::kVersionKey, QStringLiteral("45")},
                        {BundleExtended::kNameKey, QStringLiteral("PelorinVPN")}});
        m_sandbox = std::make_unique<ShellSandbox>();
        m_journal = std::make_unique<Journal>();
        m_engine = std::make_unique<FakeEngine>(*m_journal);
        m_window = std::make_unique<FakeWindow>(*m_journal);
        m_alerts = std::make_unique<FakeAlerts>();
        m_urls = std::make_unique<FakeUrlOpener>();
        m_clock = std::make_unique<ClockGuard>();
        m_exits = 0;
        m_reopened.clear();
    }
    void cleanup()
    {
        m_delegate.reset();
        m_app.reset();
        m_clock.reset();
        m_sandbox.reset();
        EventBus::defaultCenter().reset();
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
    }

    void launchRunsItsStepsInOrder()
    {
        LogCapture log;
        m_sandbox->store().setVpnDisabled(true);
        launch({});
        const QStringList expected{QStringLiteral("window.create"),
                                   QStringLiteral("window.show"),
                                   QStringLiteral("statusItem"),
                                   QStringLiteral("engine.labelsettings"),
                                   QStringLiteral("engine.extensionConfig:chrome"),
                                   QStringLiteral("engine.startExtension")};
        QStringList seen;
        for (const QString &e : m_journal->entries)
            if (expected.contains(e))
                seen << e;
        QCOMPARE(seen, expected);
        QVERIFY(!m_sandbox->store().vpnDisabled());
        // The service is started after the login item and before the bridge.
        const QStringList texts = log.osTexts(QStringLiteral("Delegate"));
        QVERIFY(texts.contains(QStringLiteral("|VPN| Run service. BEGIN")));
        QCOMPARE(log.lines().first(), QStringLiteral("[AppDelegate] Handle notification: "
                                                     "'NSApplicationDidFinishLaunchingNotification"));
        QCOMPARE(m_window->lastMenu.items.size(), 5);
        QCOMPARE(m_window->lastMenu.items.at(1).title, QStringLiteral("L(Open)"));
        QCOMPARE(m_window->lastMenu.items.at(2).title, QStringLiteral("L(Settings)"));
        QCOMPARE(m_window->lastMenu.items.at(4).title, QStringLiteral("L(Quit_software_name)"));
        QVERIFY(m_window->lastMenu.items.at(0).title.isNull() && m_window->lastMenu.items.at(3).title.isNull());
        QCOMPARE(m_delegate->splash()->state(), SplashVC::State::CheckingConnection);
    }

    void clearUserDefaultsResetsEverythingAndAddsTheLoginItem()
    {
        AppStorageManager &store = m_sandbox->store();
        store.storeAppExitOnClose(true);
        store.storeAutoupdate(true);
        store.storeAppLanguageCode(QStringLiteral("de"));
        store.storeNotFirstRun(true);
        store.storeAppAutorunEnabled(false);
        store.storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        launch({QStringLiteral("CLEAR_USERDEFAULTS")});

        // Reference: a fresh store with its defaults, and the launch's own write.
        QTemporaryDir ref;
        AppStorageManager fresh(ref.filePath(QStringLiteral("s.conf")), store.keychain());
        fresh.resetSettings();
        fresh.setVpnDisabled(false);
        QCOMPARE(settingsOf(store.settingsFilePath()), settingsOf(fresh.settingsFilePath()));
        QVERIFY(store.appAutorunEnabled());
        QVERIFY(NQAppKit::appIsInLoginItems());
        QCOMPARE(store.getVpnCredentials().username, QStringLiteral("u")); // keychain survives
    }

    void clearVpnRemovesOnlyTheCredentials()
    {
        AppStorageManager &store = m_sandbox->store();
        store.storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        store.storeAppExitOnClose(true);
        store.storeAppAutorunEnabled(false);
        launch({QStringLiteral("CLEAR_VPN")});
        QCOMPARE(store.getVpnCredentials().username, QString());
        QCOMPARE(store.getVpnCredentials().password, QString());
        QVERIFY(store.appExitOnClose());
        QVERIFY(!NQAppKit::appIsInLoginItems()); // not wanted, not added
    }

    void postInstallPageOpensOnceAcrossLaunches()
    {
        launch({});
        answerLabels(QString()); // no link yet: the flag stays off
        QVERIFY(m_urls->opened.isEmpty());
        launch({});
        answerLabels(QStringLiteral("https://welcome.example/"));
        QCOMPARE(m_urls->opened, QStringList{QStringLiteral("https://welcome.example/")});
        launch({});
        answerLabels(QStringLiteral("https://welcome.example/"));
        QCOMPARE(m_urls->opened.size(), 1);
        QVERIFY(m_sandbox->store().value(QStringLiteral("POST_INSTALL_URL_VISITED")).toBool());
    }

    void postUninstallMarkerAndLabelFailureKeepStoredLinks()
    {
        LogCapture log;
        launch({});
        answerLabels(QString());
        const QString marker = m_sandbox->dataDir() + QStringLiteral("/nqpostuninstall");
        QCOMPARE(QString::fromUtf8(readAll(marker)),
                 QStringLiteral("<empty>,%1,2.1.0.45").arg(AppConfig::deviceUniqueID()));
        launch({});
        answerLabels(QString(), QStringLiteral("https://bye.example"));
        QCOMPARE(QString::fromUtf8(readAll(marker)),
                 QStringLiteral("https://bye.example,%1,2.1.0.45").arg(AppConfig::deviceUniqueID()));
        // A failed request stores nothing; the stored links stay and the marker is still written.
        launch({});
        answerLabels(QStringLiteral("https://x"), QStringLiteral("https://y"), NQError(QStringLiteral("net"), -1001));
        QCOMPARE(m_sandbox->store().postUninstallLink(), QStringLiteral("https://bye.example"));
        QCOMPARE(m_sandbox->store().supportLink(), QStringLiteral("https://support.example"));
        QVERIFY(std::ranges::any_of(log.lines(), [](const QString &l) {
            return l.startsWith(QStringLiteral("|AppDelegate| getLabelConfig FAILED: "));
        }));
        QVERIFY(readAll(marker).startsWith("https://bye.example,"));
    }

    void extensionLinkFallsBackToTheStorePage()
    {
        launch({});
        m_engine->extensionCompletion(false, QStringLiteral("https://ignored"), std::nullopt);
        QCOMPARE(m_sandbox->store().labelConfigBrowserChromeLink(),
                 QStringLiteral("https://chromewebstore.google.com/detail/quellon/kembcdlbgbcnnchcnbdhbmbhbejnedjf"));
        launch({});
        m_engine->extensionCompletion(true, QStringLiteral("https://ext.example"), std::nullopt);
        QCOMPARE(m_sandbox->store().labelConfigBrowserChromeLink(), QStringLiteral("https://ext.example"));
    }

    void quitWhileConnectedStopsAndRetriesEveryThreeSeconds()
    {
        LogCapture log;
        launch({});
        m_sandbox->store().storeVPNStatus(3);
        m_app->terminate();
        QCOMPARE(m_journal->count(QStringLiteral("engine.stopVPN")), 1);
        QCOMPARE(m_exits, 0);
        m_clock->advance(3000);
        QCOMPARE(m_journal->count(QStringLiteral("engine.stopVPN")), 2); // still connected: again
        m_sandbox->store().storeVPNStatus(1);
        m_clock->advance(2999);
        QCOMPARE(m_exits, 0);
        m_clock->advance(1);
        QCOMPARE(m_exits, 1);
        QVERIFY(m_sandbox->store().notFirstRun());
        QCOMPARE(m_journal->count(QStringLiteral("engine.flushExtension")), 1);
        QVERIFY(log.osTexts(QStringLiteral("Delegate")).contains(QStringLiteral("|VPN| Close service. BEGIN")));
        QCOMPARE(log.count(QStringLiteral("|AppDelegate| applicationShouldTerminate")), 3);
    }

    void loginItemStartStaysHiddenUntilTheSecondActivation()
    {
        LogCapture log;
        launch({Platform::instance().loginItemArgument()});
        QCOMPARE(m_journal->count(QStringLiteral("window.show")), 0);
        QCOMPARE(m_journal->count(QStringLiteral("window.activateHidden")), 1);
        QVERIFY(m_delegate->isFromLoginItems());
        QVERIFY(log.lines().contains(QStringLiteral("|AppDelegate| PelorinVPN launched as login item")));
        m_app->activate();
        QCOMPARE(m_journal->count(QStringLiteral("window.show")), 0);
        QVERIFY(log.lines().contains(QStringLiteral("|AppDelegate| didBecomeActive from login items")));
        m_app->activate();
        QCOMPARE(m_journal->count(QStringLiteral("window.show")), 1);
    }

    void closingTheWindowMiniaturisesOrQuits()
    {
        launch({});
        QVERIFY(!m_delegate->windowShouldClose());
        QCOMPARE(m_journal->entries.last(), QStringLiteral("window.miniaturize"));
        QCOMPARE(m_exits, 0);
        m_sandbox->store().storeAppExitOnClose(true);
        QVERIFY(m_delegate->windowShouldClose());
        QCOMPARE(m_exits, 1);
    }

    void restartRebuildsWindowAndStatusItemOnly()
    {
        LogCapture log;
        launch({});
        SplashVC *first = m_delegate->splash();
        EventBus::defaultCenter().post(QLatin1String(Events::APP_RESTART));
        QVERIFY(log.lines().contains(QStringLiteral("|AppDelegate| NT_APP_RESTART")));
        QCOMPARE(m_journal->count(QStringLiteral("window.drop")), 1);
        QCOMPARE(m_journal->count(QStringLiteral("window.create")), 2);
        QCOMPARE(m_journal->count(QStringLiteral("statusItem")), 2);
        QVERIFY(m_delegate->splash() != first);
        QCOMPARE(m_journal->count(QStringLiteral("engine.startExtension")), 1);
        QCOMPARE(log.osTexts(QStringLiteral("Delegate")).count(QStringLiteral("|VPN| Run service. BEGIN")), 1);
        // The tray's Settings entry opens the window and asks for the settings screen.
        int settings = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::SHOW_SETTINGS),
                                              [&](const Event &) { ++settings; });
        m_window->lastMenu.items.at(2).action();
        m_clock->advance(0);
        QCOMPARE(settings, 1);
        QCOMPARE(m_journal->count(QStringLiteral("window.deminiaturize")), 1);
        EventBus::defaultCenter().removeObserver(this);
    }

    void logFileIsFreshAndPrivateEachLaunchButNotFromATerminal()
    {
        // An older version left the folder and the log readable by everyone.
        const QString logPath = m_sandbox->dataDir() + QStringLiteral("/app_mac_logs.log");
        constexpr auto kOpen = QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;
        QDir().mkpath(m_sandbox->dataDir());
        QVERIFY(
            QFile::setPermissions(m_sandbox->dataDir(), kOpen | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther));
        QFile old(logPath);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("previous session");
        old.close();
        QVERIFY(old.setPermissions(kOpen));
        launch({}, true);
        QVERIFY(m_reopened.isEmpty());
        QCOMPARE(QFileInfo(logPath).size(), 16);
        LogCapture log;
        launch({}, false);
        QCOMPARE(m_reopened, QStringList{logPath});
        QCOMPARE(QFileInfo(logPath).size(), 0);
        QVERIFY(log.lines().contains(QStringLiteral("Removed previous log file")));
        QCOMPARE(QFileInfo(logPath).permissions() & 0x7077, QFile::ReadOwner | QFile::WriteOwner);
        QCOMPARE(QFileInfo(m_sandbox->dataDir()).permissions() & 0x7077,
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    void unusableLogFolderKeepsStandardErrorAndTheLaunchGoesOn()
    {
        // The data folder's place is taken by a file: nothing can be created there.
        QFile blocker(m_sandbox->dataDir());
        QVERIFY(QDir().mkpath(QFileInfo(blocker).absolutePath()));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        m_app = std::make_unique<NQApplication>(QStringList{}, [this] { ++m_exits; });
        AppDelegate::Options options;
        options.launcherPath = m_sandbox->dir.filePath(QStringLiteral("no-launcher"));
        options.standardErrorIsTerminal = [] { return false; }; // the real reopen is used
        LogCapture log;
        m_delegate = std::make_unique<AppDelegate>(*m_app, *m_engine, *m_window, *m_alerts, *m_urls, options);
        m_delegate->applicationDidFinishLaunching();
        QVERIFY(std::ranges::any_of(log.lines(), [](const QString &l) {
            return l.startsWith(QStringLiteral("|AppDelegate| Cannot redirect the log to "));
        }));
        QCOMPARE(m_journal->count(QStringLiteral("engine.startExtension")), 1);
        answerLabels(QString()); // the marker write fails quietly
        QVERIFY(QFileInfo(m_sandbox->dataDir()).isFile());
    }
};

QTEST_GUILESS_MAIN(TestAppDelegate)
#include "tst_app_delegate.moc"
