#include "ShellFakes.h"
#include "shell/NQAppKit.h"
#include "shell/NQTask.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTest>

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
        QVERIFY(log.osTexts().contains(QStringLiteral("Run External Task FAILED with error: 'Empty output data.'.")));
        log.clear();
        QCOMPARE(NQTask::run(QStringLiteral("printf '\\377\\376'")), QString());
        QCOMPARE(log.osTexts(), QStringList{QStringLiteral(
                                    "Run External Task FAILED with error: 'Can't serialize task output data.'.")});
        // A failing command still answers what it printed: the status is not looked at.
        QCOMPARE(NQTask::run(QStringLiteral("echo partial; exit 3")), QStringLiteral("partial\n"));
    }

    void runDoesNotWaitForTheCommandToEnd()
    {
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(NQTask::run(QStringLiteral("echo early; exec >&-; sleep 20")), QStringLiteral("early\n"));
        QVERIFY2(timer.elapsed() < 10000, "run waited for the command's exit");
    }

    void loginItemRoundTripUsesTheApplicationName()
    {
        ShellSandbox sandbox;
        LogCapture log;
        QVERIFY(!NQAppKit::appIsInLoginItems()); // the autostart folder does not exist yet
        QCOMPARE(NQTask::getLoginItems(), QString());
        NQAppKit::setLaunchAtLogin(true);
        QVERIFY(NQAppKit::appIsInLoginItems());
        const QString entry = sandbox.overrides().autostartDirectory + QStringLiteral("/PelorinVPN.desktop");
        QFile file(entry);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(file.readAll());
        QVERIFY(text.contains(QStringLiteral("Name=PelorinVPN\n")));
        QVERIFY(text.contains(QStringLiteral("Hidden=false")));
        QVERIFY(text.contains(QStringLiteral("--login-item")));
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
};

QTEST_GUILESS_MAIN(TestNQTask)
#include "tst_nqtask.moc"
