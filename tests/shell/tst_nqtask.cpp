#include "ShellFakes.h"
#include "shell/LoginItemsListController.h"
#include "shell/NQAppKit.h"
#include "shell/NQSystemNotification.h"
#include "shell/NQTask.h"
#include "support/LogCapture.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>
#include <QThread>

// A stand-in notification service on a private session bus, answering from its own thread so
// the product's blocking call can be served.
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
    }

    void runDoesNotWaitForTheCommandToEnd()
    {
        QElapsedTimer timer;
        timer.start();
        // Both output streams closed, so nothing (ctest included) waits for the sleeper.
        QCOMPARE(NQTask::run(QStringLiteral("echo early; exec >&- 2>&-; sleep 20")), QStringLiteral("early\n"));
        QVERIFY2(timer.elapsed() < 10000, "run waited for the command's exit");
    }

    void loginItemRoundTripUsesTheApplicationName()
    {
        ShellSandbox sandbox;
        QVERIFY(!NQAppKit::appIsInLoginItems()); // the autostart folder does not exist yet
        QCOMPARE(NQTask::getLoginItems(), QString());
        NQAppKit::setLaunchAtLogin(true);
        QVERIFY(NQAppKit::appIsInLoginItems());
        const QString entry = sandbox.overrides().autostartDirectory + QStringLiteral("/PelorinVPN.desktop");
        QFile file(entry);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(file.readAll());
        for (const char *needed : {"Name=PelorinVPN\n", "Hidden=false", "--login-item"})
            QVERIFY2(text.contains(QLatin1String(needed)), needed);
        NQAppKit::setLaunchAtLogin(false);
        QVERIFY(!QFile::exists(entry));
        QVERIFY(!NQAppKit::appIsInLoginItems());
    }

    void membershipIsASubstringTestOverTheNameList()
    {
        ShellSandbox sandbox;
        Platform::instance().addLoginItemNamed(QStringLiteral("/usr/bin/other"), QStringLiteral("Mail"));
        Platform::instance().addLoginItemNamed(QStringLiteral("/usr/bin/helper"), QStringLiteral("PelorinVPN Helper"));
        QCOMPARE(NQTask::getLoginItems(), QStringLiteral("Mail, PelorinVPN Helper"));
        QVERIFY(NQAppKit::appIsInLoginItems());
        // Deleting by our name leaves the look-alike: only the exact name is removed.
        NQAppKit::removeAppFromLoginItems();
        QCOMPARE(NQTask::getLoginItems(), QStringLiteral("Mail, PelorinVPN Helper"));
    }

    void anAutostartFolderThatCannotBeMadeIsReportedNotFatal()
    {
        QTemporaryDir dir;
        QFile blocker(dir.filePath(QStringLiteral("file")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        ShellSandbox sandbox(
            LinuxPlatform::Overrides{.autostartDirectory = blocker.fileName() + QStringLiteral("/autostart")});
        LogCapture log;
        NQAppKit::setLaunchAtLogin(true);
        QVERIFY(!NQAppKit::appIsInLoginItems());
        QVERIFY(std::ranges::any_of(log.osTexts(), [](const QString &t) {
            return t.endsWith(QStringLiteral("result: 'FAILED to add login item'."));
        }));
    }

    void listControllerFindsItemsByTheProgramTheyStart()
    {
        ShellSandbox sandbox;
        const QString program = sandbox.dir.filePath(QStringLiteral("pelorin"));
        const QString link = sandbox.dir.filePath(QStringLiteral("link"));
        QVERIFY(QFile(program).open(QIODevice::WriteOnly));
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

        ShellSandbox sandbox;
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

        bool shown = false;
        QString descriptor;
        NQSystemNotification::ShowSystemNotificationWithMessage(
            QStringLiteral("Connected"), QStringLiteral("Title"), QStringLiteral("Sweden"), {},
            [&](bool ok, const QString &text, const QString &) { shown = ok, descriptor = text; });
        QVERIFY(shown);
        QCOMPARE(descriptor, QStringLiteral("notification 42"));
        QCOMPARE(service.received, QStringList{QStringLiteral("PelorinVPN|Title|Sweden\nConnected")});
    }
};

QTEST_GUILESS_MAIN(TestNQTask)
#include "tst_nqtask.moc"
