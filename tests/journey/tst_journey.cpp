// What a person does through the window: the first start, connecting, favourites, refusals on
// the way; every way to end the program and to get its window back; the settings; the keyboard
// alone; a tunnel kept through a dead client, sleep and a restart; a locked keyring at start.
#include "Journey.h"

#include "app/SingleInstance.h"
#include "foundation/AppConfig.h"
#include "foundation/BundleExtended.h"
#include "foundation/LocalString.h"
#include "foundation/SecretBackend.h"
#include "ui/widgets/HomeWidget.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QMenu>

using journey::Journey;

namespace {
const QString kConnect = QStringLiteral("Connect");
const QString kDisconnect = QStringLiteral("Disconnect");
const QString kApply = QStringLiteral("Apply");
const QString kState = QStringLiteral("Connection state");
const QString kVirtual = QStringLiteral("Virtual location");
const QString kGermany = QStringLiteral("Germany");
constexpr int kEndsWithinMs = 5000;
constexpr int kLongAfterBackoffMs = 5 * 60 * 1000;
constexpr int kMostTabs = 40;

bool showsReconnecting(Journey &j, int attempt)
{
    const QString state = QStringLiteral("Reconnecting (attempt %1)…").arg(attempt);
    return j.runUntil([&state] { return Journey::text(kState) == state; });
}

// Product time passes (well past every backoff) and no client is started.
bool noLaunchFor(Journey &j, int ms)
{
    const int before = j.launches();
    const std::int64_t until = j.clock().clock.now() + ms;
    return j.runUntil([&j, until] { return j.clock().clock.now() >= until; }, 1000) && j.launches() == before;
}

bool openSettings(Journey &j)
{
    return Journey::click(QStringLiteral("Settings")) &&
           j.runUntil([] { return Journey::button(QStringLiteral("Data compression")) != nullptr; });
}

QListWidget *languages()
{
    return Journey::find<QListWidget>(QStringLiteral("Languages"));
}

bool chooseLanguage(Journey &j, const QString &name)
{
    if (!Journey::click(QStringLiteral("Language")) || !j.runUntil([] { return languages() != nullptr; }))
        return false;
    // The whole list fits inside the window: nothing is cut off at its edge.
    const QRect inWindow(languages()->mapTo(j.window(), QPoint(0, 0)), languages()->size());
    return j.window()->rect().contains(inWindow) && Journey::clickRow(name, languages()) &&
           j.runUntil([] { return languages() == nullptr; });
}

// The keyboard alone; PELORIN_SCREENSHOT_DIR=DIR keeps a picture after each key.
void press(Journey &j, Qt::Key key)
{
    static int shot = 0;
    QWidget *focused = j.window()->focusWidget();
    QTest::keyClick(focused ? focused : j.window(), key);
    Journey::settle();
    const QString shots = qEnvironmentVariable("PELORIN_SCREENSHOT_DIR");
    if (!shots.isEmpty() && QDir().mkpath(shots))
        j.window()->grab().save(QStringLiteral("%1/keyboard-%2.png").arg(shots).arg(++shot, 3, 10, QLatin1Char('0')));
}

// Tabs forward until the control named `name` has the focus.
bool tabTo(Journey &j, const QString &name)
{
    for (int i = 0; i < kMostTabs; ++i) {
        if (j.window()->focusWidget() && j.window()->focusWidget()->accessibleName() == name)
            return true;
        press(j, Qt::Key_Tab);
    }
    return false;
}

// The chosen row is inside the visible part of the list.
bool chosenRowOnScreen()
{
    const QListWidget *list = Journey::serverList();
    return list->viewport()->rect().contains(list->visualItemRect(list->currentItem()));
}

// An overlay of the home screen ("about", "update") and its visible button titled by `key`.
QWidget *overlay(Journey &j, const char *name)
{
    return j.window()->findChild<QWidget *>(QString::fromLatin1(name));
}
QAbstractButton *overlayButton(Journey &j, const char *name, const char *key)
{
    for (QAbstractButton *button : overlay(j, name)->findChildren<QAbstractButton *>())
        if (button->isVisible() && button->text() == LocalString::forKey(QString::fromLatin1(key)))
            return button;
    return nullptr;
}

// A private bus given to the program as its system bus, where the test owns logind's name.
struct Logind {
    QProcess daemon;
    std::unique_ptr<QDBusConnection> bus;
    bool owned = false;
    Logind()
    {
        daemon.start(QStringLiteral("dbus-daemon"),
                     {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        if (!daemon.waitForReadyRead(journey::kWaitMs))
            return;
        const QString address = QString::fromUtf8(daemon.readLine()).trimmed();
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());
        bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address, QStringLiteral("logind")));
        owned = bus->registerService(QStringLiteral("org.freedesktop.login1"));
    }
    void prepareForSleep(bool sleeping)
    {
        QVERIFY(bus->send(QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                                     QStringLiteral("org.freedesktop.login1.Manager"),
                                                     QStringLiteral("PrepareForSleep"))
                          << sleeping));
    }
};

// A login keyring that stays locked: every request is refused as when its unlock prompt is
// dismissed. It counts the requests; a real keyring prompts for each.
class LockedKeyring : public SecretBackend {
public:
    int asked = 0;
    Result find(const QString &, const QString &) override { return refuse(); }
    std::vector<Result> findAll(const QString &, const QStringList &accounts) override
    {
        return std::vector<Result>(size_t(accounts.size()), refuse());
    }
    Result update(const QString &, const QString &, const QByteArray &) override { return refuse(); }
    Result add(const QString &, const QString &, const QByteArray &) override { return refuse(); }
    Result remove(const QString &, const QString &) override { return refuse(); }
    QString name() const override { return QStringLiteral("secret-service"); }

private:
    Result refuse()
    {
        ++asked;
        return Result::failure(UserCanceled, QStringLiteral("the unlock prompt was dismissed"));
    }
};

enum class Ending { Sigterm, Sigint, WindowMenu, TrayMenu, CloseWindow };
} // namespace

class TestJourney : public QObject {
    Q_OBJECT
public:
    // The browser, for the pages the program opens.
    Q_INVOKABLE void openUrl(const QUrl &url) { m_opened << url.toString(); }

private:
    QStringList m_opened;

private slots:
    // Provisioning, at first refused by the backend (the alert offers Retry, which goes on
    // once the backend answers again), the default cluster, a connection cancelled while it is
    // being made, then connect, the session time, disconnect and the same country again (the
    // button used to stay disabled after the first disconnect). Then the menu and its overlays.
    void firstStartConnectDisconnectConnectAgain()
    {
        Journey j;
        QVERIFY(Journey::backend().fault(QStringLiteral("/api1/vpnapi/create"), QStringLiteral("status"), 503, 1));
        QString seen;
        Journey::answerAlert(LocalString::forKey(QStringLiteral("Retry")), &seen);
        j.launch({QStringLiteral("CLEAR_USERDEFAULTS")});
        // The borderless start-up window moves when dragged by its background.
        QWidget *splash = j.window();
        const QPoint before = splash->pos();
        QTest::mousePress(splash, Qt::LeftButton, {}, QPoint(20, 20));
        QTest::mouseMove(splash, QPoint(70, 50));
        QTest::mouseRelease(splash, Qt::LeftButton, {}, QPoint(70, 50));
        QCOMPARE(splash->pos(), before + QPoint(50, 30));
        QVERIFY(j.readyToConnect());
        QVERIFY2(seen.contains(QStringLiteral("Connection Error")) && seen.contains(QStringLiteral("Code: 5")),
                 qPrintable(seen));
        for (const QByteArray &line : {QByteArray("|MainWindowVC| windowDidLoad\n"),
                                       QByteArray("|MainWindowVC| I accepted being a first responder! Yea!\n"),
                                       QByteArray("\nI accepted being a first responder! Yea!\n")})
            QVERIFY2(j.log().contains(line), line.constData());
        QVERIFY(!j.storage().getVpnCredentials().password.isEmpty());
        QVERIFY(j.storage().appAutorunEnabled()); // a first start is a login item
        QCOMPARE(Journey::selectedServer(), QStringLiteral("United States"));
        QCOMPARE(Journey::text(kVirtual), QStringLiteral("- - -"));

        // Cancel while the tunnel is still being made.
        QVERIFY(Journey::click(kConnect));
        QVERIFY(j.runUntil([&j] { return Journey::button(QStringLiteral("Cancel")) && j.clientRunning(); }));
        QCOMPARE(j.storedState(), int(VpnStateConnecting));
        QVERIFY(Journey::click(QStringLiteral("Cancel")));
        QVERIFY(j.runUntil([&j] { return Journey::button(kConnect) && !j.clientRunning(); }));
        QCOMPARE(j.storedState(), int(VpnStateDisconnected));
        QVERIFY(j.readyToConnect());

        j.letTunnelComeUp();
        for (int round = 1; round <= 2; ++round) {
            QVERIFY(Journey::click(kConnect));
            QVERIFY(j.connected());
            QVERIFY(j.clientRunning());
            QCOMPARE(Journey::text(kVirtual), QStringLiteral("United States"));
            // "Connecting to the secure server..." is not left over the live session.
            QVERIFY2(!Journey::find(QStringLiteral("Progress")), qPrintable(Journey::text(QStringLiteral("Progress"))));
            QVERIFY2(Journey::text(kState).endsWith(QStringLiteral("00:00:00")), qPrintable(Journey::text(kState)));
            j.clock().advance(2000);
            QVERIFY2(Journey::text(kState).endsWith(QStringLiteral("00:00:02")), qPrintable(Journey::text(kState)));

            QVERIFY(Journey::click(kDisconnect));
            QVERIFY(j.runUntil([&j] { return Journey::button(kConnect) && !j.clientRunning(); }));
            QCOMPARE(j.storedState(), int(VpnStateDisconnected));
            QCOMPARE(Journey::text(kState), QString());
            QCOMPARE(Journey::text(kVirtual), QStringLiteral("---"));
            QCOMPARE(Journey::selectedServer(), QStringLiteral("United States"));
            QVERIFY(j.readyToConnect());
        }

        // The menu: each entry first closes what is open over the screen, so About chosen
        // while open stays open and the update panel takes its place; the pages open outside.
        const auto chooseInMenu = [&j](const char *entry) {
            const QString name = LocalString::forKey(QString::fromLatin1(entry));
            return Journey::click(QStringLiteral("Menu")) && j.runUntil([&name] { return Journey::button(name); }) &&
                   Journey::click(name) && j.runUntil([&name] { return !Journey::button(name); });
        };
        QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "openUrl");
        QVERIFY(chooseInMenu("About"));
        QStringList shownTexts;
        for (const QLabel *label : overlay(j, "about")->findChildren<QLabel *>())
            shownTexts << label->text();
        QVERIFY2(shownTexts.contains(QStringLiteral("PelorinVPN ") + BundleExtended::appVersionString()) &&
                     !j.storage().deviceUUID().isEmpty() && shownTexts.contains(j.storage().deviceUUID()),
                 qPrintable(shownTexts.join(QLatin1Char('|'))));
        for (const char *link : {"License agreement", "Privacy policy"})
            QVERIFY(Journey::click(overlayButton(j, "about", link)));
        for (const char *entry : {"About", "Update", "Support", "Uninstall"}) {
            QVERIFY2(chooseInMenu(entry), entry);
            QVERIFY2(overlay(j, "about")->isVisible() == (entry == QByteArrayView("About")), entry);
            QVERIFY2(overlay(j, "update")->isVisible() == (entry == QByteArrayView("Update")), entry);
        }
        QCOMPARE(m_opened, (QStringList{AppConfig::eulaUrl(), AppConfig::privacyPolicyUrl(), AppConfig::supportUrl(),
                                        AppConfig::uninstallUrl()}));
        // The backend offers a newer version: Yes or No; No, and About's Close, close the overlays.
        QVERIFY(chooseInMenu("Update"));
        QVERIFY(j.runUntil([&j] { return overlayButton(j, "update", "Yes") && !overlayButton(j, "update", "Ok"); }));
        QVERIFY(Journey::click(overlayButton(j, "update", "No")));
        QVERIFY(j.runUntil([&j] { return !overlay(j, "update")->isVisible(); }));
        QVERIFY(chooseInMenu("About"));
        QVERIFY(Journey::click(overlayButton(j, "about", "Close")));
        QVERIFY(j.runUntil([&j] { return !overlay(j, "about")->isVisible(); }));
    }

    // Star a country, connect to it from the favourites tab, un-star it there. Then sudo
    // refuses the tunnel client (the user left the group the rule names): the window says why
    // and what to do, and once a person read it and pressed Enter, Connect can be pressed.
    void favouritesThenSudoRefuses()
    {
        Journey j;
        j.launch();
        QVERIFY(j.readyToConnect());
        const QString star = QStringLiteral("Favourite Germany");
        QVERIFY(Journey::click(star));
        QVERIFY(j.runUntil([&star] { return Journey::button(star)->isChecked(); }));
        QVERIFY(Journey::click(QStringLiteral("Favourites")));
        QVERIFY(Journey::button(QStringLiteral("Favourites"))->isChecked());
        QVERIFY(j.runUntil([] { return Journey::serverList()->count() == 1; }));
        QVERIFY(Journey::clickRow(kGermany));
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == kGermany; }));
        QVERIFY(j.connectDefault());
        QCOMPARE(Journey::text(kVirtual), kGermany);

        QVERIFY(Journey::click(star));
        QVERIFY(j.runUntil([] { return Journey::serverList()->count() == 0; }));
        // The tunnel is not touched by the list.
        QCOMPARE(j.storedState(), int(VpnStateConnected));
        QVERIFY(Journey::click(kDisconnect));
        QVERIFY(j.runUntil([&j] { return !j.clientRunning() && Journey::button(kConnect); }));
        // Back on all locations the default is chosen again, and it can be connected.
        QVERIFY(Journey::click(QStringLiteral("All locations")));
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("United States"); }));
        QVERIFY(j.readyToConnect());
        QVERIFY(!Journey::button(star)->isChecked());

        j.write(QStringLiteral("sudo-refuses"), {});
        QFile::remove(j.root() + QStringLiteral("/helpers/pid"));
        QString seen;
        Journey::answerAlert({}, &seen);
        QVERIFY(Journey::click(kConnect));
        QVERIFY(j.runUntil([&seen] { return !seen.isEmpty(); }));
        for (const QString &part : {QStringLiteral("could not be started"), QStringLiteral("a password is required"),
                                    QStringLiteral("\"pelorin-vpn\""), QStringLiteral("log out and in again")})
            QVERIFY2(seen.contains(part), qPrintable(seen));
        QVERIFY(j.runUntil([] { return QApplication::activeModalWidget() == nullptr; }));
        QVERIFY(j.readyToConnect());
        QCOMPARE(j.storedState(), int(VpnStateDisconnected));
        QVERIFY(Journey::button(QStringLiteral("Cancel")) == nullptr);
        QCOMPARE(j.clientPid(), 0);
        // Connect means connect: refused again, it says so again; allowed, the tunnel comes up.
        seen.clear();
        Journey::answerAlert({}, &seen);
        QVERIFY(Journey::click(kConnect));
        QVERIFY(j.runUntil([&seen] { return seen.contains(QStringLiteral("a password is required")); }));
        QFile::remove(j.root() + QStringLiteral("/sudo-refuses"));
        QVERIFY(j.connectDefault());
    }

    // Every way to end the program while connected: the tunnel is stopped before it leaves, its
    // client gone with no product time passing. The Quit entry is the tray menu's where there is
    // a tray, else the window menu's. Closing the window quits without a tray whatever "Quit when
    // window closes" says; with a tray it miniaturises unless that switch is on.
    void ending_data()
    {
        QTest::addColumn<Ending>("how");
        QTest::addColumn<bool>("tray");
        QTest::addColumn<bool>("exitOnClose");
        QTest::addColumn<bool>("ends");
        QTest::newRow("sigterm") << Ending::Sigterm << false << false << true;
        QTest::newRow("sigint") << Ending::Sigint << false << false << true;
        QTest::newRow("window-menu-quit") << Ending::WindowMenu << false << false << true;
        QTest::newRow("tray-menu-quit") << Ending::TrayMenu << true << false << true;
        QTest::newRow("close-no-tray") << Ending::CloseWindow << false << false << true;
        QTest::newRow("close-tray") << Ending::CloseWindow << true << false << false;
        QTest::newRow("close-tray-quit-on-close") << Ending::CloseWindow << true << true << true;
    }
    void ending()
    {
        QFETCH(Ending, how);
        QFETCH(bool, tray);
        QFETCH(bool, exitOnClose);
        QFETCH(bool, ends);
        Journey j;
        j.launch({}, {tray});
        j.storage().storeAppExitOnClose(exitOnClose);
        QVERIFY(j.connectDefault());
        std::function<void()> action = [&j] { j.window()->close(); };
        if (how == Ending::Sigterm || how == Ending::Sigint)
            action = [how] { ::raise(how == Ending::Sigterm ? SIGTERM : SIGINT); };
        const QString quit = LocalString::forKey(QStringLiteral("Quit_software_name"));
        if (how == Ending::WindowMenu || how == Ending::TrayMenu) {
            QVERIFY(Journey::click(QStringLiteral("Menu")));
            Journey::settle();
            QVERIFY(tray ? !Journey::button(quit) : j.runUntil([&quit] { return Journey::button(quit) != nullptr; }));
            action = [quit] { Journey::click(quit); };
        }
        for (QAction *entry : j.host().statusMenu()->actions())
            if (how == Ending::TrayMenu && entry->text() == quit)
                action = [entry] { entry->trigger(); };
        QCOMPARE(j.runEventLoopUntilExit(kEndsWithinMs, action), ends);
        QVERIFY(ends ? j.runUntil([&j] { return !j.clientRunning(); }, 0) : j.clientRunning());
        QCOMPARE(j.storedState(), int(ends ? VpnStateDisconnected : VpnStateConnected));
        QCOMPARE(j.window()->isMinimized(), !ends);
    }

    // A login-item start stays hidden only where the tray can bring the window up. A second
    // launch while one runs: the running window comes forward (from hidden or minimised), the
    // second leaves with status 0 without opening a display or touching the first one's log.
    void loginItemThenSecondLaunch_data()
    {
        QTest::addColumn<bool>("tray");
        QTest::newRow("no-tray") << false;
        QTest::newRow("tray") << true;
    }
    void loginItemThenSecondLaunch()
    {
        QFETCH(bool, tray);
        Journey j;
        SingleInstance instance;
        QVERIFY(instance.listen());
        j.launch({QStringLiteral("--login-item")}, {tray});
        QObject::connect(&instance, &SingleInstance::showRequested, [&j] { j.session().showRequested(); });
        QVERIFY(j.runUntil([&j] { return j.host().homeWidget() != nullptr; }));
        QCOMPARE(j.window()->isVisible(), !tray);
        if (!tray)
            j.window()->showMinimized();
        const QByteArray logged = j.log();
        QVERIFY(!logged.isEmpty());

        QProcess second;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        env.insert(QStringLiteral("DISPLAY"), QStringLiteral(":97531")); // no such display
        env.insert(QStringLiteral("PELORIN_HELPERS_DIR"),
                   qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers"));
        env.insert(QStringLiteral("PELORIN_DATA_HOME"), j.root() + QStringLiteral("/data"));
        second.setProcessEnvironment(env);
        second.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/bin/pelorin-vpn"));
        QVERIFY(j.runUntil([&second] { return second.state() == QProcess::NotRunning; }, 0));
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(j.runUntil([&j] { return j.window()->isVisible() && !j.window()->isMinimized(); }, 0));
        QVERIFY(j.log().startsWith(logged));
        QVERIFY(j.log().contains("|GuiApp| another launch asked for the window"));
    }

    // Each switch is stored on Apply only, and the window is not rebuilt for them; a language
    // chosen and taken back takes no part in Apply. A language change rebuilds the window in
    // it, the tunnel stopped first.
    void settings_data()
    {
        QTest::addColumn<bool>("connected");
        QTest::newRow("switches-then-language") << false;
        QTest::newRow("language-while-connected") << true;
    }
    void settings()
    {
        QFETCH(bool, connected);
        Journey j;
        j.launch();
        QVERIFY(connected ? j.connectDefault() : j.readyToConnect());
        const HomeWidget *home = j.host().homeWidget();
        QVERIFY(openSettings(j));
        QVERIFY(!Journey::button(kApply)->isEnabled());
        QVERIFY(chooseLanguage(j, QStringLiteral("Deutsch")));
        QVERIFY(Journey::button(kApply)->isEnabled());
        QVERIFY(chooseLanguage(j, LocalString::appLanguageName()));
        QVERIFY(!Journey::button(kApply)->isEnabled());

        const QList<std::pair<QString, std::function<bool()>>> switches{
            {QStringLiteral("Data compression"), [&j] { return j.storage().vpnDataCompressionEnabled(); }},
            {QStringLiteral("Start at login"), [&j] { return j.storage().appAutorunEnabled(); }},
            {QStringLiteral("Quit when window closes"), [&j] { return j.storage().appExitOnClose(); }},
            {QStringLiteral("Update automatically"), [&j] { return j.storage().autoupdate(); }},
        };
        for (const auto &[name, stored] : connected ? decltype(switches)() : switches) {
            const bool before = stored();
            QVERIFY2(Journey::click(name), qPrintable(name));
            QVERIFY2(j.runUntil([] { return Journey::button(kApply)->isEnabled(); }), qPrintable(name));
            QCOMPARE(stored(), before);
            QVERIFY(Journey::click(kApply));
            QVERIFY2(j.runUntil([] { return !Journey::button(kApply)->isEnabled(); }), qPrintable(name));
            QCOMPARE(stored(), !before);
            QCOMPARE(Journey::button(name)->isChecked(), !before);
        }
        QCOMPARE(QFile::exists(j.root() + QStringLiteral("/autostart/PelorinVPN.desktop")),
                 j.storage().appAutorunEnabled());
        j.clock().advance(5000);
        Journey::settle();
        QCOMPARE(j.host().homeWidget(), home);
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("en"));

        QVERIFY(chooseLanguage(j, QStringLiteral("Deutsch")));
        QVERIFY(Journey::click(kApply));
        QVERIFY(j.runUntil([&j, home] { return j.host().homeWidget() && j.host().homeWidget() != home; }));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("de"));
        QVERIFY(!j.clientRunning());
        if (connected)
            QCOMPARE(j.storedState(), int(VpnStateDisconnected));
        const QString connect = LocalString::forKey(kConnect);
        QVERIFY(j.runUntil([&connect] { return Journey::button(connect) && Journey::button(connect)->isEnabled(); }));
    }

    // From start to connected and back with the keyboard only: Tab, arrows, Space, Enter, Escape.
    void keyboardOnly()
    {
        Journey j;
        j.launch();
        QVERIFY(j.readyToConnect());
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("United States"); }));
        // As a window manager would on a click: the keyboard goes to this window.
        QApplication::setActiveWindow(j.window());

        // The list is one stop; arrows choose, down to the last row below the fold.
        QVERIFY(tabTo(j, QStringLiteral("Servers")));
        press(j, Qt::Key_Down);
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("Canada"); }));
        for (int i = 0; i < Journey::serverList()->count(); ++i)
            press(j, Qt::Key_Down);
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("India"); }));
        QVERIFY(chosenRowOnScreen());
        QCOMPARE(j.window()->focusWidget(), Journey::serverList());
        press(j, Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("Favourite India"))->isChecked(); }));
        QVERIFY(chosenRowOnScreen());

        // Connect with Space, disconnect with Enter.
        j.letTunnelComeUp();
        QVERIFY(tabTo(j, kConnect));
        press(j, Qt::Key_Space);
        QVERIFY(j.connected());
        QCOMPARE(Journey::text(kVirtual), QStringLiteral("India"));
        QVERIFY(tabTo(j, kDisconnect));
        press(j, Qt::Key_Return);
        QVERIFY(j.runUntil([&j] { return Journey::button(kConnect) && !j.clientRunning(); }));

        // The menu and the language list open from the keyboard and close with Escape.
        QVERIFY(tabTo(j, QStringLiteral("Menu")));
        press(j, Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("About")) != nullptr; }));
        press(j, Qt::Key_Escape);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("About")) == nullptr; }));

        QVERIFY(tabTo(j, QStringLiteral("Settings")));
        press(j, Qt::Key_Space);
        QVERIFY(tabTo(j, QStringLiteral("Language")));
        press(j, Qt::Key_Space);
        QVERIFY(j.runUntil([] { return languages() != nullptr; }));
        QCOMPARE(j.window()->focusWidget(), languages());
        press(j, Qt::Key_Escape);
        QVERIFY(j.runUntil([] { return languages() == nullptr; }));
        QVERIFY(tabTo(j, QStringLiteral("Close")));
        press(j, Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::button(kConnect) != nullptr; }));
    }

    // The client dies twice: the panel counts the attempts and is connected again untouched.
    // Then it dies again and the attempts end (Cancel while waiting for the next one, or refused
    // credentials): the count starts over and no attempt follows.
    void attemptsEnd_data()
    {
        QTest::addColumn<bool>("refused");
        QTest::newRow("cancel") << false;
        QTest::newRow("refused") << true;
    }
    void attemptsEnd()
    {
        QFETCH(bool, refused);
        Journey j;
        j.launch();
        QVERIFY(j.connectDefault());
        j.holdTunnelDown();
        for (int attempt = 1; attempt <= 2; ++attempt) {
            QVERIFY(j.killClient());
            QVERIFY(showsReconnecting(j, attempt));
            QVERIFY(j.runUntil([&j, attempt] { return j.launches() == attempt + 1 && j.clientRunning(); }));
        }
        j.letTunnelComeUp();
        QVERIFY(j.connected());
        QVERIFY(Journey::text(kState).startsWith(QStringLiteral("Connection time")));

        j.holdTunnelDown();
        QString alert;
        if (refused) {
            j.write(QStringLiteral("helpers/refuse"), "1");
            Journey::answerAlert(QStringLiteral("OK"), &alert);
        }
        QVERIFY(j.killClient());
        QVERIFY(showsReconnecting(j, 1));
        if (refused)
            QVERIFY(j.runUntil([&j] { return j.launches() == 4 && j.storedState() == VpnStateAuthFailed; }));
        else
            QVERIFY(Journey::click(QStringLiteral("Cancel")));
        QVERIFY(j.runUntil([] { return Journey::button(kConnect) != nullptr; }));
        QVERIFY(noLaunchFor(j, kLongAfterBackoffMs));
        QVERIFY(!j.clientRunning());
        QCOMPARE(Journey::text(kState), QString());
        QCOMPARE(alert.contains(QStringLiteral("refused the credentials")), refused);
        // The next Connect starts a new tunnel.
        QFile::remove(j.root() + QStringLiteral("/helpers/refuse"));
        QVERIFY(j.connectDefault());
    }

    // logind says the machine sleeps and wakes: a tunnel that survived is left alone; one lost
    // meanwhile is not retried while asleep and comes back on waking.
    void sleepAndWake_data()
    {
        QTest::addColumn<bool>("lostAsleep");
        QTest::newRow("survives") << false;
        QTest::newRow("lost") << true;
    }
    void sleepAndWake()
    {
        QFETCH(bool, lostAsleep);
        Logind logind;
        QVERIFY(logind.owned);
        Journey j;
        // The sleep watch is a module of its own beside the tunnel client, as installed.
        const QString module = QStringLiteral("/helpers/libpelorin-sleepwatch.so");
        QVERIFY(QFile::link(qEnvironmentVariable("PELORIN_BINARY_DIR") + module, j.root() + module));
        j.launch();
        QVERIFY(j.connectDefault());
        QVERIFY(j.runUntil([&j] { return j.log().contains("|SystemEvents| watching sleep and wake"); }));
        logind.prepareForSleep(true);
        QVERIFY(j.runUntil([&j] { return j.log().contains("|TunnelKeeper| the machine goes to sleep"); }));
        if (lostAsleep) {
            j.holdTunnelDown();
            QVERIFY(j.killClient());
            QVERIFY(showsReconnecting(j, 1));
            QVERIFY(noLaunchFor(j, kLongAfterBackoffMs));
            j.letTunnelComeUp();
        }
        logind.prepareForSleep(false);
        QVERIFY(j.runUntil([&j] { return j.log().contains("|TunnelKeeper| the machine woke up"); }));
        QVERIFY(j.connected());
        QCOMPARE(j.launches(), lostAsleep ? 2 : 1);
        QCOMPARE(j.log().contains("|TunnelKeeper| tunnel checked: still up"), !lostAsleep);
    }

    // Switched on (stored at once, no Apply), then the program ends uncleanly while connected
    // to another cluster than the default; the next start connects there by itself.
    void connectAutomaticallyAfterRestart()
    {
        Journey j;
        j.launch();
        QVERIFY(j.readyToConnect());
        QVERIFY(openSettings(j));
        QVERIFY(Journey::click(QStringLiteral("Connect automatically")));
        QVERIFY(j.runUntil([&j] { return j.storage().appAutoconnectEnabled(); }));
        QVERIFY(!Journey::button(kApply)->isEnabled());
        QVERIFY(Journey::click(QStringLiteral("Close")));
        QVERIFY(j.runUntil([] { return Journey::clickRow(QStringLiteral("Canada")); }));
        j.letTunnelComeUp();
        QVERIFY(j.runUntil([] { return Journey::click(kConnect); }));
        QVERIFY(j.connected());

        j.restart();
        QVERIFY(j.connected());
        QCOMPARE(j.launches(), 2);
        QCOMPARE(Journey::selectedServer(), QStringLiteral("Canada"));
        QVERIFY(j.log().contains("connect automatically to Canada"));
    }

    // The login keyring locked and its unlock prompt refused: the window tells the user, in
    // the interface language, what will not be kept and why, and the run goes on without
    // asking again.
    void keyringUnlockRefusedAtStart()
    {
        Journey j;
        const auto keyring = std::make_shared<LockedKeyring>();
        AppStorageManager::setSharedManagerForTesting(
            std::make_unique<AppStorageManager>(j.root() + QStringLiteral("/settings.conf"),
                                                KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), keyring)));
        const QString language = QStringLiteral("de");
        j.storage().storeAppLanguageCode(language);
        QString seen;
        Journey::answerAlert(LocalString::forKeyInLanguage(QStringLiteral("Ok"), language), &seen);
        j.launch();
        QVERIFY(j.runUntil([&seen] { return !seen.isEmpty(); }));
        // The buttons are named in the interface language: the home screen itself is enough.
        QVERIFY(j.runUntil([&j] { return j.host().homeWidget() != nullptr; }));

        const NQErrorOpt why = j.storage().secretsNotKept();
        QVERIFY(why);
        for (const QString &part :
             {LocalString::forKeyInLanguage(QStringLiteral("keyring_stayed_locked"), language),
              QStringLiteral("(%1)").arg(why->localizedDescription()), QStringLiteral("VPN-Anmeldung")})
            QVERIFY2(seen.contains(part), qPrintable(seen));
        // One prompt for the whole run.
        QCOMPARE(keyring->asked, 1);
    }
};

QTEST_MAIN(TestJourney)
#include "tst_journey.moc"
