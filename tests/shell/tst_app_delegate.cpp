#include "ShellFakes.h"
#include "foundation/AppConfig.h"
#include "foundation/EventNames.h"
#include "shell/AppDelegate.h"
#include "shell/NQAppKit.h"
#include "shell/SplashVC.h"
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

bool anyStartsWith(const QStringList &lines, const QString &start)
{
    return std::ranges::any_of(lines, [&](const QString &l) { return l.startsWith(start); });
}
} // namespace

class TestAppDelegate : public QObject {
    Q_OBJECT

    std::unique_ptr<ShellWorld> w;
    std::unique_ptr<NQApplication> m_app;
    std::unique_ptr<AppDelegate> m_delegate;
    int m_exits = 0;
    QStringList m_reopened;

    // `terminal` unset: the real reopen of standard error is used.
    AppDelegate &launch(const QStringList &arguments, std::optional<bool> terminal = true)
    {
        m_delegate.reset();
        m_app = std::make_unique<NQApplication>(arguments, [this] { ++m_exits; });
        AppDelegate::Options options;
        options.launcherPath = w->sandbox.dir.filePath(QStringLiteral("no-launcher"));
        options.standardErrorIsTerminal = [terminal] { return terminal.value_or(false); };
        if (terminal)
            options.reopenStandardError = [this](const QString &path) {
                m_reopened << path;
                return true;
            };
        m_delegate = std::make_unique<AppDelegate>(*m_app, w->engine, w->window, w->alerts, w->urls, options);
        m_delegate->applicationDidFinishLaunching();
        return *m_delegate;
    }
    void answerLabels(const QString &postInstall, const QString &postUninstall = {}, NQErrorOpt error = {})
    {
        auto completion = std::move(w->engine.labelCompletion);
        completion(QStringLiteral("https://support.example"), postInstall, postUninstall, error);
    }
    int count(const char *entry) const { return w->journal.count(QString::fromLatin1(entry)); }

private slots:
    void init()
    {
        w = std::make_unique<ShellWorld>();
        m_exits = 0;
        m_reopened.clear();
    }
    void cleanup()
    {
        m_delegate.reset();
        m_app.reset();
        w.reset();
    }

    void launchRunsItsStepsInOrder()
    {
        LogCapture log;
        w->store().setVpnDisabled(true);
        launch({});
        const QStringList expected{"window.create",
                                   "window.show",
                                   "statusItem",
                                   "engine.labelsettings",
                                   "engine.extensionConfig:chrome",
                                   "engine.startExtension"};
        QStringList seen;
        for (const QString &e : w->journal.entries)
            if (expected.contains(e))
                seen << e;
        QCOMPARE(seen, expected);
        QVERIFY(!w->store().vpnDisabled());
        QVERIFY(log.osTexts(QStringLiteral("Delegate")).contains(QStringLiteral("|VPN| Run service. BEGIN")));
        QCOMPARE(log.lines().first(),
                 QStringLiteral("[AppDelegate] Handle notification: 'NSApplicationDidFinishLaunchingNotification"));
        QStringList menu;
        for (const auto &item : w->window.lastMenu.items)
            menu << item.title;
        QCOMPARE(menu, (QStringList{"", "L(Open)", "L(Settings)", "", "L(Quit_software_name)"}));
        QCOMPARE(m_delegate->splash()->state(), SplashVC::State::CheckingConnection);
    }

    // CLEAR_USERDEFAULTS: every setting back to its default, the keychain kept, the login item
    // added. CLEAR_VPN: only the credentials go.
    void clearArguments()
    {
        AppStorageManager &store = w->store();
        const auto prepare = [&store] {
            store.storeAppExitOnClose(true);
            store.storeAutoupdate(true);
            store.storeAppLanguageCode(QStringLiteral("de"));
            store.storeAppAutorunEnabled(false);
            store.storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        };
        prepare();
        launch({QStringLiteral("CLEAR_VPN")});
        QCOMPARE(store.getVpnCredentials().username, QString());
        QCOMPARE(store.getVpnCredentials().password, QString());
        QVERIFY(store.appExitOnClose());
        QVERIFY(!NQAppKit::appIsInLoginItems()); // not wanted, not added

        prepare();
        launch({QStringLiteral("CLEAR_USERDEFAULTS")});
        QTemporaryDir ref;
        AppStorageManager fresh(ref.filePath(QStringLiteral("s.conf")), store.keychain());
        fresh.resetSettings();
        fresh.setVpnDisabled(false);
        QCOMPARE(settingsOf(store.settingsFilePath()), settingsOf(fresh.settingsFilePath()));
        QVERIFY(store.appAutorunEnabled());
        QVERIFY(NQAppKit::appIsInLoginItems());
        QCOMPARE(store.getVpnCredentials().username, QStringLiteral("u"));
    }

    void labelAnswersAcrossLaunches()
    {
        LogCapture log;
        const QString marker = w->sandbox.dataDir() + QStringLiteral("/nqpostuninstall");
        const QString device = AppConfig::deviceUniqueID();
        launch({});
        answerLabels(QString()); // no links yet: nothing opened, the flag stays off
        QVERIFY(w->urls.opened.isEmpty());
        QCOMPARE(QString::fromUtf8(readAll(marker)), QStringLiteral("<empty>,%1,2.1.0.45").arg(device));
        launch({});
        answerLabels(QStringLiteral("https://welcome.example/"), QStringLiteral("https://bye.example"));
        QCOMPARE(w->urls.opened, QStringList{QStringLiteral("https://welcome.example/")});
        QCOMPARE(QString::fromUtf8(readAll(marker)), QStringLiteral("https://bye.example,%1,2.1.0.45").arg(device));
        launch({});
        answerLabels(QStringLiteral("https://welcome.example/")); // opened once only
        QCOMPARE(w->urls.opened.size(), 1);
        // A failed request stores nothing; the stored links stay and the marker is still written.
        QFile::remove(marker);
        launch({});
        answerLabels(QStringLiteral("https://x"), QStringLiteral("https://y"), NQError(QStringLiteral("net"), -1001));
        QCOMPARE(w->store().supportLink(), QStringLiteral("https://support.example"));
        QVERIFY(anyStartsWith(log.lines(), QStringLiteral("|AppDelegate| getLabelConfig FAILED: ")));
        QVERIFY(readAll(marker).startsWith("https://bye.example,"));
    }

    void extensionLinkFallsBackToTheStorePage()
    {
        launch({});
        w->engine.extensionCompletion(false, QStringLiteral("https://ignored"), std::nullopt);
        QCOMPARE(w->store().labelConfigBrowserChromeLink(),
                 QStringLiteral("https://chromewebstore.google.com/detail/quellon/kembcdlbgbcnnchcnbdhbmbhbejnedjf"));
        launch({});
        w->engine.extensionCompletion(true, QStringLiteral("https://ext.example"), std::nullopt);
        QCOMPARE(w->store().labelConfigBrowserChromeLink(), QStringLiteral("https://ext.example"));
    }

    void quitWhileConnectedStopsAndRetriesEveryThreeSeconds()
    {
        LogCapture log;
        launch({});
        w->store().storeVPNStatus(3);
        m_app->terminate();
        QCOMPARE(count("engine.stopVPN"), 1);
        w->clock.advance(3000);
        QCOMPARE(count("engine.stopVPN"), 2); // still connected: again
        w->store().storeVPNStatus(1);
        w->clock.advance(2999);
        QCOMPARE(m_exits, 0);
        w->clock.advance(1);
        QCOMPARE(m_exits, 1);
        QVERIFY(w->store().notFirstRun());
        QCOMPARE(count("engine.flushExtension"), 1);
        QVERIFY(log.osTexts(QStringLiteral("Delegate")).contains(QStringLiteral("|VPN| Close service. BEGIN")));
    }

    void loginItemStartStaysHiddenUntilTheSecondActivation()
    {
        launch({Platform::instance().loginItemArgument()});
        QCOMPARE(count("window.show"), 0);
        QCOMPARE(count("window.activateHidden"), 1);
        QVERIFY(m_delegate->isFromLoginItems());
        m_app->activate();
        QCOMPARE(count("window.show"), 0);
        m_app->activate();
        QCOMPARE(count("window.show"), 1);
    }

    void closingTheWindowMiniaturisesOrQuits()
    {
        launch({});
        QVERIFY(!m_delegate->windowShouldClose());
        QCOMPARE(w->journal.entries.last(), QStringLiteral("window.miniaturize"));
        QCOMPARE(m_exits, 0);
        w->store().storeAppExitOnClose(true);
        QVERIFY(m_delegate->windowShouldClose());
        QCOMPARE(m_exits, 1);
    }

    void restartRebuildsWindowAndStatusItemOnly()
    {
        launch({});
        SplashVC *first = m_delegate->splash();
        EventBus::defaultCenter().post(QLatin1String(Events::APP_RESTART));
        QCOMPARE(count("window.drop"), 1);
        QCOMPARE(count("window.create"), 2);
        QCOMPARE(count("statusItem"), 2);
        QVERIFY(m_delegate->splash() != first);
        QCOMPARE(count("engine.startExtension"), 1);
        // The tray's Settings entry opens the window and asks for the settings screen.
        int settings = 0;
        EventBus::defaultCenter().addObserver(this, QLatin1String(Events::SHOW_SETTINGS),
                                              [&](const Event &) { ++settings; });
        w->window.lastMenu.items.at(2).action();
        w->clock.advance(0);
        QCOMPARE(settings, 1);
        QCOMPARE(count("window.deminiaturize"), 1);
    }

    void logFileIsFreshAndPrivateEachLaunchButNotFromATerminal()
    {
        // An older version left the folder and the log readable by everyone.
        const QString dataDir = w->sandbox.dataDir();
        const QString logPath = dataDir + QStringLiteral("/app_mac_logs.log");
        constexpr auto kOpen = QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;
        QDir().mkpath(dataDir);
        QVERIFY(QFile::setPermissions(dataDir, kOpen | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther));
        QFile old(logPath);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("previous session");
        old.close();
        QVERIFY(old.setPermissions(kOpen));
        launch({}, true);
        QVERIFY(m_reopened.isEmpty());
        QCOMPARE(QFileInfo(logPath).size(), 16);
        launch({}, false);
        QCOMPARE(m_reopened, QStringList{logPath});
        QCOMPARE(QFileInfo(logPath).size(), 0);
        QCOMPARE(QFileInfo(logPath).permissions() & 0x7077, QFile::ReadOwner | QFile::WriteOwner);
        QCOMPARE(QFileInfo(dataDir).permissions() & 0x7077, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    void unusableLogFolderKeepsStandardErrorAndTheLaunchGoesOn()
    {
        // The data folder's place is taken by a file: nothing can be created there.
        QFile blocker(w->sandbox.dataDir());
        QVERIFY(QDir().mkpath(QFileInfo(blocker).absolutePath()));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        LogCapture log;
        launch({}, std::nullopt);
        QVERIFY(anyStartsWith(log.lines(), QStringLiteral("|AppDelegate| Cannot redirect the log to ")));
        QCOMPARE(count("engine.startExtension"), 1);
        answerLabels(QString()); // the marker write fails quietly
        QVERIFY(QFileInfo(w->sandbox.dataDir()).isFile());
    }
};

QTEST_GUILESS_MAIN(TestAppDelegate)
#include "tst_app_delegate.moc"
