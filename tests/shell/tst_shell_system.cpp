// The shell's helpers on the system: external commands, login items, desktop notifications
// (against a stand-in notification service on a private session bus), and the service
// launcher against missing, broken and recording helpers and the real helper.
#include "ShellFakes.h"
#include "shell/LoginItemsListController.h"
#include "shell/NQAppKit.h"
#include "shell/NQSystemNotification.h"
#include "shell/NQTask.h"
#include "shell/ServiceLauncher.h"
#include "support/LogCapture.h"

#include <QDBusConnection>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>
#include <QThread>

// Answers from its own thread, so the product's blocking call can be served.
class NotificationsService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    QStringList received;

public slots:
    uint Notify(const QString &app, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int)
    {
        received << app + QLatin1Char('|') + summary + QLatin1Char('|') + body;
        return 42;
    }
};

class TestShellSystem : public QObject {
    Q_OBJECT

private slots:
    // A command's output, or empty text on every failure. Login-item membership is a substring
    // test over the names, so deleting by our name leaves a look-alike; the list controller
    // goes by the program an item starts. Notifications last: they need a bus daemon.
    void commandsLoginItemsAndNotifications()
    {
        LogCapture log;
        QCOMPARE(NQTask::run(QStringLiteral("true")), QString());
        QCOMPARE(NQTask::run(QStringLiteral("printf '\\377\\376'")), QString());
        for (const char *error : {"Empty output data.", "Can't serialize task output data."})
            QVERIFY(log.osTexts().contains(QStringLiteral("Run External Task FAILED with error: '%1'.").arg(error)));
        // A command's end is not waited for: both output streams closed, nothing (ctest included) waits.
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(NQTask::run(QStringLiteral("echo early; exec >&- 2>&-; sleep 20")), QStringLiteral("early\n"));
        QVERIFY2(timer.elapsed() < 10000, "run waited for the command's exit");

        ShellWorld world;
        QCOMPARE(NQTask::getLoginItems(), QString()); // the autostart folder does not exist yet
        Platform::instance().addLoginItemNamed(QStringLiteral("/usr/bin/other"), QStringLiteral("Mail"));
        Platform::instance().addLoginItemNamed(QStringLiteral("/usr/bin/pelorin"), QStringLiteral("PelorinVPN Helper"));
        const QString items = QStringLiteral("Mail, PelorinVPN Helper");
        QCOMPARE(NQTask::getLoginItems(), items);
        QVERIFY(NQAppKit::appIsInLoginItems());
        NQAppKit::removeAppFromLoginItems();
        QCOMPARE(NQTask::getLoginItems(), items);

        const QString program = world.dir.filePath(QStringLiteral("pelorin"));
        const QString link = world.dir.filePath(QStringLiteral("link"));
        QVERIFY(writeFile(program, {}));
        QVERIFY(QFile::link(program, link));
        LoginItemsListController controller;
        QVERIFY(!controller.willLaunchAtLogin(program)); // same name, other program
        controller.setLaunchAtLogin(true, link);
        QVERIFY(controller.willLaunchAtLogin(program)); // links resolved on both sides
        controller.setLaunchAtLogin(true, program);     // already there: no second entry
        QCOMPARE(Platform::instance().loginItems().size(), 3);
        controller.setLaunchAtLogin(false, program);
        QVERIFY(!controller.willLaunchAtLogin(link));

        QSignalSpy changed(&controller, &LoginItemsListController::launchAtLoginChanged);
        controller.setLaunchAtLogin(true);
        QVERIFY(controller.launchAtLogin());
        QCOMPARE(changed.size(), 1);

        QCOMPARE(NQSystemNotification::scriptText(QStringLiteral("m"), QStringLiteral("t"), QStringLiteral("s")),
                 QStringLiteral("display notification \"m\" with title \"t\" subtitle \"s\""));
        const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemon.isEmpty())
            QSKIP("dbus-daemon is not installed");
        QProcess bus;
        bus.start(daemon,
                  {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
        QVERIFY(bus.waitForReadyRead(10000));
        const QString address = QString::fromUtf8(bus.readLine().trimmed());
        qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
        const auto stopBus = qScopeGuard([&bus] {
            bus.kill();
            bus.waitForFinished();
        });
        // A session without a notification service: a clear failure, not a hang.
        QString failure;
        NQSystemNotification::ShowSystemNotificationWithMessage(
            QStringLiteral("m"), QStringLiteral("s"), {},
            [&](bool shown, const QString &, const QString &error) { failure = shown ? QString() : error; });
        QVERIFY2(failure.contains(QStringLiteral("org.freedesktop.Notifications")), qPrintable(failure));

        QThread thread;
        NotificationsService service;
        service.moveToThread(&thread);
        thread.start();
        const auto stopThread = qScopeGuard([&thread] {
            QDBusConnection::disconnectFromBus(QStringLiteral("svc"));
            thread.quit();
            thread.wait();
        });
        QDBusConnection connection = QDBusConnection::connectToBus(address, QStringLiteral("svc"));
        QVERIFY(connection.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &service,
                                          QDBusConnection::ExportAllSlots));
        QVERIFY(connection.registerService(QStringLiteral("org.freedesktop.Notifications")));
        QString descriptor;
        for (const QString &title : {QStringLiteral("Title"), QString()})
            NQSystemNotification::ShowSystemNotificationWithMessage(
                QStringLiteral("Connected"), title, QStringLiteral("Sweden"), {},
                [&](bool ok, const QString &text, const QString &) { descriptor += ok ? text : QStringLiteral("!"); });
        QCOMPARE(descriptor, QStringLiteral("notification 42notification 42"));
        QCOMPARE(service.received, (QStringList{QStringLiteral("PelorinVPN|Title|Sweden\nConnected"),
                                                QStringLiteral("PelorinVPN|PelorinVPN|Sweden\nConnected")}));
    }

    // A launcher that cannot run is a logged fault, tried once per session; closing still
    // tries, logs the failed write and cleans the marker.
    void launcherThatCannotRun_data()
    {
        QTest::addColumn<QString>("launcher");
        QTest::addColumn<QString>("said"); // the start of the last line
        QTest::newRow("empty location")
            << ""
            << "|VPN| Run service. DONE with error: 'Launcher not found at url: '(null)'.'.";
        QTest::newRow("missing") << "missing"
                                 << "|VPN| Run service. DONE with error: 'Launcher running failed with error: 'No "
                                    "such file or directory'.'.";
        QTest::newRow("not executable") << "plain"
                                        << "|VPN| Run service. DONE with error: '";
    }
    void launcherThatCannotRun()
    {
        QFETCH(QString, launcher);
        QFETCH(QString, said);
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath(QStringLiteral("plain")), "#!/bin/sh\nexit 0\n"));
        LogCapture log;
        ServiceLauncher service(launcher.isEmpty() ? launcher : dir.filePath(launcher), dir.path());
        service.vpnRunService();
        QVERIFY2(log.osTexts().last().startsWith(said), qPrintable(log.osTexts().last()));
        QCOMPARE(log.osRecords().last().level, OsLog::Level::Fault);
        log.clear();
        service.vpnRunService();
        QCOMPARE(log.osTexts().last(), QStringLiteral("|VPN| Run service. DONE with error: 'Already running.'."));

        QVERIFY(writeFile(dir.filePath(QStringLiteral("openvpn.last_pid")), "123"));
        log.clear();
        service.vpnCloseService();
        QVERIFY(anyStartsWith(log.osTexts(), QStringLiteral("|VPN| Close service. DONE with fatal error: '")));
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Removed previous openvpn.last_pid file")});
    }

    // The helper ends on "quit" or when its input closes, which the launcher's end does.
    void quitLinesAndTheRealHelper()
    {
        QTemporaryDir dir;
        const QString script = dir.filePath(QStringLiteral("recorder"));
        const QString out = dir.filePath(QStringLiteral("received"));
        QVERIFY(writeFile(
            script,
            QStringLiteral(
                "#!/bin/sh\nwhile IFS= read -r line; do printf '%s\\n' \"$line\" >> '%1'; done\necho eof >> '%1'\n")
                .arg(out)
                .toUtf8(),
            QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        LogCapture log;
        {
            ServiceLauncher service(script, dir.path());
            service.vpnRunService();
            QCOMPARE(log.osTexts().last(), QStringLiteral("|VPN| Run service. DONE."));
            service.vpnCloseService();
            service.vpnCloseService();
        }
        QCOMPARE(contentOf(out), QByteArray("quit\nquit\neof\n"));

        // The real helper ends on "quit" or at the end of its input, and ends the tunnel client
        // the marker names, but never a process that is not one; a marker naming a process that
        // is gone is removed at start.
        QVERIFY(QDir().mkpath(dir.filePath(QStringLiteral("com.pelorin.vpn.mac"))));
        const QString marker = dir.filePath(QStringLiteral("com.pelorin.vpn.mac/openvpn.last_pid"));
        // The real helper, with its data folder (and the marker file's) under `dir`.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PELORIN_DATA_HOME"), dir.path());
        const QString ourClient = dir.filePath(QStringLiteral("ovpncli")); // our client's process name
        QVERIFY(QFile::link(QStringLiteral("/bin/sleep"), ourClient));
        for (const QString &program : {ourClient, QStringLiteral("/bin/sleep"), QString()}) {
            QProcess leftover;
            if (!program.isEmpty()) {
                leftover.start(program, {QStringLiteral("60")});
                QVERIFY(leftover.waitForStarted());
            }
            QVERIFY(writeFile(marker, program.isEmpty() ? "999999999" : QByteArray::number(leftover.processId())));
            QProcess helper;
            helper.setProcessEnvironment(env);
            helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/vpnctrl_launcher"), {});
            QVERIFY(helper.waitForStarted());
            if (program.isEmpty()) {
                QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(marker), 10000);
                helper.closeWriteChannel();
            } else {
                helper.write("status\n");
                QVERIFY(!helper.waitForFinished(300)); // any other line is not an end
                helper.write("quit\n");
            }
            QVERIFY(helper.waitForFinished(10000));
            QCOMPARE(helper.exitCode(), 0);
            QVERIFY(!QFile::exists(marker));
            if (program == ourClient) {
                QVERIFY(leftover.waitForFinished(10000));
                QCOMPARE(leftover.exitStatus(), QProcess::CrashExit); // ended by a signal
            } else if (!program.isEmpty()) {
                QVERIFY(!leftover.waitForFinished(300)); // not one of ours: still running
                leftover.kill();
                leftover.waitForFinished();
            }
        }
    }
};

QTEST_GUILESS_MAIN(TestShellSystem)
#include "tst_shell_system.moc"
