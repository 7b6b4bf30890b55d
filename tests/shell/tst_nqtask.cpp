// The shell's helpers on the system: external commands, login items, and desktop notifications
// against a stand-in notification service on a private session bus.
#include "ShellFakes.h"
#include "shell/LoginItemsListController.h"
#include "shell/NQAppKit.h"
#include "shell/NQSystemNotification.h"
#include "shell/NQTask.h"
#include "support/LogCapture.h"

#include <QDBusConnection>
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

class TestNQTask : public QObject {
    Q_OBJECT

private slots:
    void runReturnsOutputOrEmptyTextOnEveryFailure()
    {
        LogCapture log;
        QCOMPARE(NQTask::run(QStringLiteral("printf 'a, b\\n'")), QStringLiteral("a, b\n"));
        QCOMPARE(NQTask::run(QStringLiteral("printf 'K\\303\\266ln'")), QStringLiteral("Köln"));
        QVERIFY(log.osTexts().isEmpty());
        QCOMPARE(NQTask::run(QStringLiteral("true")), QString());
        QCOMPARE(NQTask::run(QStringLiteral("printf '\\377\\376'")), QString());
        for (const char *error : {"Empty output data.", "Can't serialize task output data."})
            QVERIFY(log.osTexts().contains(QStringLiteral("Run External Task FAILED with error: '%1'.").arg(error)));
        // A failing command still answers what it printed: the status is not looked at.
        QCOMPARE(NQTask::run(QStringLiteral("echo partial; exit 3")), QStringLiteral("partial\n"));
        // Nor is its end waited for: both output streams closed, nothing (ctest included) waits.
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(NQTask::run(QStringLiteral("echo early; exec >&- 2>&-; sleep 20")), QStringLiteral("early\n"));
        QVERIFY2(timer.elapsed() < 10000, "run waited for the command's exit");
    }

    // Membership is a substring test over the names; deleting by our name leaves a look-alike.
    void membershipIsASubstringTestOverTheNameList()
    {
        ShellWorld world;
        QCOMPARE(NQTask::getLoginItems(), QString()); // the autostart folder does not exist yet
        Platform::instance().addLoginItemNamed(QStringLiteral("/usr/bin/other"), QStringLiteral("Mail"));
        Platform::instance().addLoginItemNamed(QStringLiteral("/usr/bin/helper"), QStringLiteral("PelorinVPN Helper"));
        QCOMPARE(NQTask::getLoginItems(), QStringLiteral("Mail, PelorinVPN Helper"));
        QVERIFY(NQAppKit::appIsInLoginItems());
        NQAppKit::removeAppFromLoginItems();
        QCOMPARE(NQTask::getLoginItems(), QStringLiteral("Mail, PelorinVPN Helper"));
    }

    void listControllerFindsItemsByTheProgramTheyStart()
    {
        ShellWorld world;
        const QString program = world.dir.filePath(QStringLiteral("pelorin"));
        const QString link = world.dir.filePath(QStringLiteral("link"));
        QVERIFY(writeFile(program, {}));
        QVERIFY(QFile::link(program, link));
        Platform::instance().addLoginItemNamed(QStringLiteral("/usr/bin/pelorin"), QStringLiteral("Look-alike"));

        LoginItemsListController controller;
        QVERIFY(!controller.willLaunchAtLogin(program)); // same name, other program
        controller.setLaunchAtLogin(true, link);
        QVERIFY(controller.willLaunchAtLogin(program)); // links resolved on both sides
        controller.setLaunchAtLogin(true, program);     // already there: no second entry
        QCOMPARE(Platform::instance().loginItems().size(), 2);
        controller.setLaunchAtLogin(false, program);
        QVERIFY(!controller.willLaunchAtLogin(link));
        QCOMPARE(NQTask::getLoginItems(), QStringLiteral("Look-alike"));

        QSignalSpy changed(&controller, &LoginItemsListController::launchAtLoginChanged);
        controller.setLaunchAtLogin(true);
        QVERIFY(controller.launchAtLogin());
        QCOMPARE(changed.size(), 1);
    }

    void notificationTextAndDelivery()
    {
        QCOMPARE(NQSystemNotification::scriptText(QStringLiteral("m"), QString(), QString()),
                 QStringLiteral("display notification \"m\""));
        QCOMPARE(NQSystemNotification::scriptText(QStringLiteral("m"), QStringLiteral("t"), QStringLiteral("s")),
                 QStringLiteral("display notification \"m\" with title \"t\" subtitle \"s\""));

        ShellWorld world;
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
};

QTEST_GUILESS_MAIN(TestNQTask)
#include "tst_nqtask.moc"
