#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/RouteMessages.h"
#include "support/Files.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr QFile::Permissions kExecutable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;

QByteArray routeMessage(quint16 type, quint8 dstLen, quint8 table = RT_TABLE_MAIN, quint8 routeType = RTN_UNICAST)
{
    QByteArray bytes(NLMSG_SPACE(sizeof(rtmsg)), '\0');
    auto *header = reinterpret_cast<nlmsghdr *>(bytes.data());
    header->nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    header->nlmsg_type = type;
    auto *route = reinterpret_cast<rtmsg *>(bytes.data() + NLMSG_HDRLEN);
    route->rtm_family = AF_INET;
    route->rtm_dst_len = dstLen;
    route->rtm_table = table;
    route->rtm_type = routeType;
    return bytes;
}
} // namespace

class TestLinuxPlatform : public QObject {
    Q_OBJECT
private slots:
    // Without an override the folder goes under the session's runtime folder. (Its creation,
    // private and with its parents, is driven through the tunnel tests' own folders.)
    void temporaryDirectoryDefaultsToTheRuntimeFolder()
    {
        QTemporaryDir root;
        chmod(QFile::encodeName(root.path()).constData(), 0700);
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(root.path()));
        qunsetenv("PELORIN_TMPDIR");
        QCOMPARE(LinuxPlatform().temporaryDirectory(), root.path() + "/com.pelorin.vpn.mac");
    }

    // Open to others, a link, a file, or another user's: refused.
    void unsafeTemporaryDirectoryIsRefused_data()
    {
        QTest::addColumn<int>("mode"); // 0: not a folder of ours
        QTest::addColumn<QString>("kind");
        QTest::newRow("group writable") << 0770 << "dir";
        QTest::newRow("world readable") << 0704 << "dir";
        QTest::newRow("link to a private folder") << 0700 << "link";
        QTest::newRow("file") << 0700 << "file";
        QTest::newRow("another user's") << 0700 << "theirs";
    }
    void unsafeTemporaryDirectoryIsRefused()
    {
        QFETCH(int, mode);
        QFETCH(QString, kind);
        if (kind == "theirs" && geteuid() != 0)
            QSKIP("needs root to hand a folder to another user");
        QTemporaryDir root;
        const QString target = root.path() + "/target";
        const QString dir = kind == "link" ? root.path() + "/link" : target;
        QVERIFY(kind == "file" ? writeFile(target, "x") : QDir().mkdir(target));
        QCOMPARE(chmod(QFile::encodeName(target).constData(), mode_t(mode)), 0);
        QVERIFY(kind != "link" || QFile::link(target, dir));
        QVERIFY(kind != "theirs" || chown(QFile::encodeName(target).constData(), 65534, 65534) == 0);
        QCOMPARE(LinuxPlatform({.temporaryDirectory = dir}).temporaryDirectory(), QString());
    }

    // Listing, adding and removing entries is driven through the shell's login-item tests; what
    // they do not look at is whether a removal reports that it removed something.
    void deletingALoginItemSaysWhetherOneWasRemoved()
    {
        QTemporaryDir root;
        LinuxPlatform platform({.autostartDirectory = root.path()});
        QVERIFY(platform.addLoginItem("/usr/bin/PelorinVPN"));
        QVERIFY(platform.deleteLoginItem("PelorinVPN"));
        QVERIFY(!platform.deleteLoginItem("PelorinVPN"));
    }

    void browsersAndInstaller()
    {
        QTemporaryDir bin;
        QVERIFY(!LinuxPlatform({.browserSearchPath = {bin.path()}}).isChromeInstalled());
        QVERIFY(!LinuxPlatform({.browserSearchPath = {bin.path()}}).isFirefoxInstalled());
        QVERIFY(writeFile(bin.path() + "/chromium", "#!/bin/sh\n", kExecutable));
        QVERIFY(writeFile(bin.path() + "/firefox-esr", "#!/bin/sh\n", kExecutable));
        LinuxPlatform some({.browserSearchPath = {bin.path()}});
        QVERIFY(some.isChromeInstalled() && some.isFirefoxInstalled());
        QCOMPARE(some.openInChromeCommand("https://example.org"),
                 (QStringList{bin.path() + "/chromium", "https://example.org"}));

        // A shipped installer is used only when it can be run.
        const QString shipped = bin.path() + "/install-update";
        QVERIFY(writeFile(shipped, "#!/bin/sh\n"));
        LinuxPlatform packaged({.helpersDirectory = bin.path()});
        QVERIFY(packaged.installerCommand("/d/P.deb").first() != shipped);
        QVERIFY(packaged.installerCommand("/d/P.deb").contains("/d/P.deb"));
        QVERIFY(writeFile(shipped, "#!/bin/sh\n", kExecutable));
        QCOMPARE(packaged.installerCommand("/d/P.deb"), (QStringList{shipped, "/d/P.deb"}));
    }

    // logind's seat file names the console user; without logind the running user stands in.
    void consoleUserComesFromTheFirstSeat()
    {
        const QList<std::tuple<QString, bool, bool>> cases{
            {QStringLiteral("ACTIVE=c2\nACTIVE_UID=%1\nSESSIONS=c2\n").arg(getuid()), true, true},
            {"CAN_GRAPHICAL=1\nSESSIONS=\n", true, false}, // nobody at the screen
            {"ACTIVE_UID=x\n", true, false},
            {QString(), true, false}, // no seat0 file
            {QString(), false, true}, // no logind
        };
        for (const auto &[seatFile, logind, ourUser] : cases) {
            QTemporaryDir root;
            const QString seats = root.path() + (logind ? "/seats" : "/absent");
            QVERIFY(!logind || QDir().mkpath(seats));
            QVERIFY(seatFile.isNull() || writeFile(seats + "/seat0", seatFile.toUtf8()));
            const Platform::ConsoleUser user = LinuxPlatform({.seatsDirectory = seats}).consoleUser();
            QCOMPARE(user.home, ourUser ? QString::fromLocal8Bit(getpwuid(getuid())->pw_dir) : QString());
            QCOMPARE(user.name.isEmpty(), !ourUser);
        }
    }
    // What the route socket reader takes for a change of the network: default routes of the
    // main table only, never the tunnel's own routes; malformed input ends the reading.
    void defaultRoutesOnly_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<bool>("changed");
        QTest::newRow("default added") << routeMessage(RTM_NEWROUTE, 0) << true;
        QTest::newRow("default removed") << routeMessage(RTM_DELROUTE, 0) << true;
        QTest::newRow("tunnel half route") << routeMessage(RTM_NEWROUTE, 1) << false;
        QTest::newRow("local table") << routeMessage(RTM_NEWROUTE, 0, RT_TABLE_LOCAL) << false;
        QTest::newRow("unreachable default") << routeMessage(RTM_NEWROUTE, 0, RT_TABLE_MAIN, RTN_UNREACHABLE) << false;
        QTest::newRow("link, not route") << routeMessage(RTM_NEWLINK, 0) << false;
        QTest::newRow("default second") << routeMessage(RTM_NEWROUTE, 24) + routeMessage(RTM_NEWROUTE, 0) << true;
        QTest::newRow("truncated") << routeMessage(RTM_NEWROUTE, 0).left(NLMSG_LENGTH(sizeof(rtmsg)) - 1) << false;
        QByteArray zeroLength = routeMessage(RTM_NEWROUTE, 24) + routeMessage(RTM_NEWROUTE, 0);
        reinterpret_cast<nlmsghdr *>(zeroLength.data())->nlmsg_len = 0; // would never advance
        QTest::newRow("zero length") << zeroLength << false;
    }
    void defaultRoutesOnly()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(bool, changed);
        QCOMPARE(RouteMessages::touchesDefaultRoute(datagram), changed);
    }
};

QTEST_GUILESS_MAIN(TestLinuxPlatform)
#include "tst_linuxplatform.moc"
