#include "platform/linux/LinuxPlatform.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

class TestLinuxPlatform : public QObject {
    Q_OBJECT
private slots:
    void temporaryDirectoryIsCreatedPrivate()
    {
        QTemporaryDir root;
        const QString dir = root.path() + "/a/b/private";
        LinuxPlatform platform({.temporaryDirectory = dir});
        QCOMPARE(platform.temporaryDirectory(), dir);
        struct stat st {};
        QCOMPARE(stat(QFile::encodeName(dir).constData(), &st), 0);
        QCOMPARE(int(st.st_mode & 0777), 0700);
        QCOMPARE(st.st_uid, geteuid());
        // asking again keeps it and does not fail on the existing folder
        QCOMPARE(platform.temporaryDirectory(), dir);
    }

    void temporaryDirectoryOpenToOthersIsRefused_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("group writable") << 0770;
        QTest::newRow("world readable") << 0704;
        QTest::newRow("shared like /tmp") << 01777;
    }
    void temporaryDirectoryOpenToOthersIsRefused()
    {
        QFETCH(int, mode);
        QTemporaryDir root;
        const QString dir = root.path() + "/loose";
        QVERIFY(QDir().mkdir(dir));
        QCOMPARE(chmod(QFile::encodeName(dir).constData(), mode_t(mode)), 0);
        LinuxPlatform platform({.temporaryDirectory = dir});
        QCOMPARE(platform.temporaryDirectory(), QString());
    }

    void temporaryDirectoryThatIsALinkOrFileIsRefused()
    {
        QTemporaryDir root;
        const QString target = root.path() + "/target";
        QVERIFY(QDir().mkdir(target));
        chmod(QFile::encodeName(target).constData(), 0700);
        const QString link = root.path() + "/link";
        QVERIFY(QFile::link(target, link));
        QCOMPARE(LinuxPlatform({.temporaryDirectory = link}).temporaryDirectory(), QString());

        const QString file = root.path() + "/file";
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.close();
        QCOMPARE(LinuxPlatform({.temporaryDirectory = file}).temporaryDirectory(), QString());
    }

    void temporaryDirectoryOfAnotherUserIsRefused()
    {
        if (geteuid() != 0)
            QSKIP("needs root to hand a folder to another user");
        QTemporaryDir root;
        const QString dir = root.path() + "/theirs";
        QVERIFY(QDir().mkdir(dir));
        chmod(QFile::encodeName(dir).constData(), 0700);
        QCOMPARE(chown(QFile::encodeName(dir).constData(), 65534, 65534), 0);
        QCOMPARE(LinuxPlatform({.temporaryDirectory = dir}).temporaryDirectory(), QString());
    }

    void defaultTemporaryDirectoryLivesInTheRuntimeFolder()
    {
        QTemporaryDir runtime;
        chmod(QFile::encodeName(runtime.path()).constData(), 0700);
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime.path()));
        qunsetenv("PELORIN_TMPDIR");
        QCOMPARE(LinuxPlatform().temporaryDirectory(), runtime.path() + "/com.pelorin.vpn.mac");
    }

    void loginItemsRoundTripThroughAutostartEntries()
    {
        QTemporaryDir root;
        const QString autostart = root.path() + "/autostart"; // does not exist yet
        LinuxPlatform platform({.autostartDirectory = autostart});
        QCOMPARE(platform.loginItemNames(), QStringList());
        QVERIFY(platform.addLoginItem("/usr/bin/PelorinVPN"));
        QCOMPARE(platform.loginItemNames(), QStringList{"PelorinVPN"});

        QFile entry(autostart + "/PelorinVPN.desktop");
        QVERIFY(entry.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(entry.readAll());
        QVERIFY(text.contains("Exec=\"/usr/bin/PelorinVPN\" " + platform.loginItemArgument()));
        QVERIFY(text.contains("Hidden=false"));

        // adding again replaces rather than duplicates
        QVERIFY(platform.addLoginItem("/usr/bin/PelorinVPN"));
        QCOMPARE(platform.loginItemNames().size(), 1);

        QVERIFY(platform.deleteLoginItem("PelorinVPN"));
        QCOMPARE(platform.loginItemNames(), QStringList());
        QVERIFY(!platform.deleteLoginItem("PelorinVPN"));
    }

    void hiddenAutostartEntriesAreNotListed()
    {
        QTemporaryDir root;
        QFile f(root.path() + "/other.desktop");
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("[Desktop Entry]\nName=Other\nHidden=true\n");
        f.close();
        QCOMPARE(LinuxPlatform({.autostartDirectory = root.path()}).loginItemNames(), QStringList());
    }

    void deviceModelComesFromTheDmiFile()
    {
        QTemporaryDir root;
        QFile f(root.path() + "/product_name");
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("ThinkPad X1 Carbon\n");
        f.close();
        QCOMPARE(LinuxPlatform({.dmiProductNameFile = f.fileName()}).deviceModel(),
                 std::optional<QString>("ThinkPad X1 Carbon"));
        QCOMPARE(LinuxPlatform({.dmiProductNameFile = root.path() + "/missing"}).deviceModel(), std::nullopt);
    }

    void browsersAreFoundOnTheSearchPath()
    {
        QTemporaryDir bin;
        LinuxPlatform none({.browserSearchPath = {bin.path()}});
        QVERIFY(!none.isChromeInstalled());
        QVERIFY(!none.isFirefoxInstalled());
        QVERIFY(none.openInChromeCommand("https://example.org").isEmpty());

        for (const char *name : {"chromium", "firefox-esr"}) {
            QFile f(bin.path() + "/" + name);
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write("#!/bin/sh\n");
            f.close();
            f.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        }
        LinuxPlatform some({.browserSearchPath = {bin.path()}});
        QVERIFY(some.isChromeInstalled());
        QVERIFY(some.isFirefoxInstalled());
        QCOMPARE(some.openInChromeCommand("https://example.org"),
                 (QStringList{bin.path() + "/chromium", "https://example.org"}));
    }

    // logind's seat file names the console user; without logind the running user stands in.
    void consoleUserComesFromTheFirstSeat_data()
    {
        QTest::addColumn<QString>("seatFile"); // null: no seat0 file
        QTest::addColumn<bool>("logind");
        QTest::addColumn<bool>("ourUser");
        const QString active = QStringLiteral("ACTIVE=c2\nACTIVE_UID=%1\nSESSIONS=c2\n").arg(getuid());
        QTest::newRow("active session") << active << true << true;
        QTest::newRow("nobody at the screen") << "CAN_GRAPHICAL=1\nSESSIONS=\n" << true << false;
        QTest::newRow("unreadable uid") << "ACTIVE_UID=x\n" << true << false;
        QTest::newRow("no seat") << QString() << true << false;
        QTest::newRow("no logind") << QString() << false << true;
    }
    void consoleUserComesFromTheFirstSeat()
    {
        QFETCH(QString, seatFile);
        QFETCH(bool, logind);
        QFETCH(bool, ourUser);
        QTemporaryDir root;
        const QString seats = root.path() + (logind ? "/seats" : "/absent");
        QVERIFY(!logind || QDir().mkpath(seats));
        if (!seatFile.isNull()) {
            QFile seat(seats + "/seat0");
            QVERIFY(seat.open(QIODevice::WriteOnly));
            seat.write(seatFile.toUtf8());
        }
        const Platform::ConsoleUser user = LinuxPlatform({.seatsDirectory = seats}).consoleUser();
        QCOMPARE(user.home, ourUser ? QString::fromLocal8Bit(getpwuid(getuid())->pw_dir) : QString());
        QCOMPARE(user.name.isEmpty(), !ourUser);
    }

    void installerUsesTheOverrideWithThePackagePath()
    {
        LinuxPlatform platform({.installer = "/opt/fake-installer"});
        QCOMPARE(platform.installerCommand("/d/PelorinVPN.deb"),
                 (QStringList{"/opt/fake-installer", "/d/PelorinVPN.deb"}));
        QVERIFY(LinuxPlatform().installerCommand("/d/PelorinVPN.deb").contains("/d/PelorinVPN.deb"));

        // A shipped installer is used only when it can be run.
        QTemporaryDir helpers;
        QFile shipped(helpers.path() + "/install-update");
        QVERIFY(shipped.open(QIODevice::WriteOnly));
        shipped.close();
        LinuxPlatform packaged({.helpersDirectory = helpers.path()});
        QVERIFY(packaged.installerCommand("/d/PelorinVPN.deb").first() != shipped.fileName());
        shipped.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
        QCOMPARE(packaged.installerCommand("/d/PelorinVPN.deb"),
                 (QStringList{shipped.fileName(), "/d/PelorinVPN.deb"}));
    }
};

QTEST_GUILESS_MAIN(TestLinuxPlatform)
#include "tst_linuxplatform.moc"
