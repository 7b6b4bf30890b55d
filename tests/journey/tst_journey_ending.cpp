// Every way to end the program and to get its window back: signals while connected, the quit
// entries, the window's close with and without a tray, a login-item start, a second launch.
#include "Journey.h"

#include "foundation/LocalString.h"

#include <QMenu>

using journey::Journey;

namespace {
constexpr int kEndsWithinMs = 5000;
const QString kConnect = QStringLiteral("Connect");
const QString kDisconnect = QStringLiteral("Disconnect");

// Home, then connected to the default cluster.
bool connectDefault(Journey &j)
{
    if (!j.waitForHome() || !j.runUntil([] { return Journey::button(kConnect)->isEnabled(); }))
        return false;
    j.letTunnelComeUp();
    return Journey::click(kConnect) && j.runUntil([] { return Journey::button(kDisconnect) != nullptr; });
}
} // namespace

class TestJourneyEnding : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(!Journey::backend().baseUrl().isEmpty()); }

    // The signal stops the tunnel; the retry 3 s later must then end the program.
    void sigtermWhileConnected() { endBySignal(SIGTERM); }
    void sigintWhileConnected() { endBySignal(SIGINT); }

    // No tray (the test display has none): the window's own menu has a Quit entry.
    void quitFromTheWindowMenuWithoutTray()
    {
        Journey j;
        j.launch();
        QVERIFY(connectDefault(j));
        QVERIFY(Journey::click(QStringLiteral("Menu")));
        const QString quit = LocalString::forKey(QStringLiteral("Quit_software_name"));
        QVERIFY(j.runUntil([&quit] { return Journey::button(quit) != nullptr; }));
        QVERIFY(j.runEventLoopUntilExit(kEndsWithinMs, [quit] { Journey::click(quit); }));
        QVERIFY(!j.clientRunning());
    }

    // With a tray the Quit entry is the tray menu's; the window's menu has none.
    void trayMenuQuit()
    {
        Journey j;
        j.launch({}, {true});
        QVERIFY(j.waitForHome());
        QVERIFY(Journey::click(QStringLiteral("Menu")));
        const QString quit = LocalString::forKey(QStringLiteral("Quit_software_name"));
        Journey::settle();
        QVERIFY(Journey::button(quit) == nullptr);
        QAction *entry = nullptr;
        for (QAction *action : j.host().statusMenu()->actions())
            if (action->text() == quit)
                entry = action;
        QVERIFY(entry);
        QVERIFY(j.runEventLoopUntilExit(kEndsWithinMs, [entry] { entry->trigger(); }));
    }

    // Closing the window: without a tray it quits (after the tunnel is down) whatever
    // "Quit when window closes" says; with a tray it miniaturises unless that switch is on.
    void closeWindow_data()
    {
        QTest::addColumn<bool>("tray");
        QTest::addColumn<bool>("exitOnClose");
        QTest::addColumn<bool>("ends");
        QTest::newRow("no-tray") << false << false << true;
        QTest::newRow("tray") << true << false << false;
        QTest::newRow("tray-quit-on-close") << true << true << true;
    }
    void closeWindow()
    {
        QFETCH(bool, tray);
        QFETCH(bool, exitOnClose);
        QFETCH(bool, ends);
        Journey j;
        j.launch({}, {tray});
        j.storage().storeAppExitOnClose(exitOnClose);
        QVERIFY(connectDefault(j));
        QCOMPARE(j.runEventLoopUntilExit(kEndsWithinMs, [&j] { j.window()->close(); }), ends);
        if (ends) {
            QVERIFY(!j.clientRunning());
            QCOMPARE(j.storedState(), int(VpnStateDisconnected));
        } else {
            QVERIFY(j.window()->isMinimized());
            QVERIFY(j.clientRunning());
        }
    }

    // A login-item start stays hidden only where the tray can bring the window up.
    void loginItemStart_data()
    {
        QTest::addColumn<bool>("tray");
        QTest::newRow("no-tray") << false;
        QTest::newRow("tray") << true;
    }
    void loginItemStart()
    {
        QFETCH(bool, tray);
        Journey j;
        j.launch({QStringLiteral("--login-item")}, {tray});
        QVERIFY(j.runUntil([&j] { return j.host().homeWidget() != nullptr; }));
        QCOMPARE(j.window()->isVisible(), !tray);
    }

    // A second launch while one runs: the running window comes forward, the second leaves
    // with status 0 without opening a display or touching the first one's log.
    void secondLaunch()
    {
        Journey j;
        SingleInstance instance;
        QVERIFY(instance.listen());
        j.launch();
        QObject::connect(&instance, &SingleInstance::showRequested, [&j] { j.session().showRequested(); });
        QVERIFY(j.waitForHome());
        j.window()->showMinimized();
        const QString log = j.root() + QStringLiteral("/data/com.pelorin.vpn.mac/app_mac_logs.log");
        QVERIFY(QFile::exists(log));

        QProcess second;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        env.insert(QStringLiteral("DISPLAY"), QStringLiteral(":97531")); // no such display
        env.insert(QStringLiteral("PELORIN_HELPERS_DIR"),
                   qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers"));
        env.insert(QStringLiteral("PELORIN_DATA_HOME"), j.root() + QStringLiteral("/data"));
        second.setProcessEnvironment(env);
        second.setProcessChannelMode(QProcess::ForwardedChannels);
        second.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/bin/pelorin-vpn"));
        QVERIFY(Journey::waitFor([&second] { return second.state() == QProcess::NotRunning; }));
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(Journey::waitFor([&j] { return j.window()->isVisible() && !j.window()->isMinimized(); }));
        QVERIFY(QFile::exists(log));
        QFile text(log);
        QVERIFY(text.open(QIODevice::ReadOnly));
        QVERIFY(text.readAll().contains("|GuiApp| another launch asked for the window"));
    }

private:
    void endBySignal(int number)
    {
        Journey j;
        j.launch();
        QVERIFY(connectDefault(j));
        QVERIFY2(j.runEventLoopUntilExit(kEndsWithinMs, [number] { ::raise(number); }),
                 "the program still runs 5 s after the signal");
        QVERIFY(!j.clientRunning());
        QCOMPARE(j.storedState(), int(VpnStateDisconnected));
    }
};

QTEST_MAIN(TestJourneyEnding)
#include "tst_journey_ending.moc"
