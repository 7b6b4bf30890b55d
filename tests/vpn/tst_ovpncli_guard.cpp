// What ovpncli, running as root, lets through to openvpn: the profile check on its own, then
// the installed helper run as root for an unprivileged user against hostile profiles.
#include "ProfileGuard.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr unsigned kUser = 1000;
constexpr auto kFolder = "/run/user/1000/com.pelorin.vpn.mac";

const std::string kGoodProfile = "# PelorinVPN development profile: United States\n"
                                 "client\n"
                                 "dev tun\n"
                                 "proto udp\n"
                                 "remote 10.231.0.1 1194\n"
                                 "nobind\n"
                                 "persist-key\n"
                                 "persist-tun\n"
                                 "resolv-retry infinite\n"
                                 "remote-cert-tls server\n"
                                 "data-ciphers AES-256-GCM\n"
                                 "cipher AES-256-GCM\n"
                                 "verb 3\n"
                                 "auth-user-pass /run/user/1000/com.pelorin.vpn.mac/auth.txt\n"
                                 "<ca>\n"
                                 "-----BEGIN CERTIFICATE-----\n"
                                 "MIIBszCCAVmgAwIBAgIUQ\n"
                                 "-----END CERTIFICATE-----\n"
                                 "</ca>\n";

ProfileGuard::Facts privateFacts()
{
    ProfileGuard::Facts facts;
    facts.requester = kUser;
    facts.folderPath = kFolder;
    facts.folder = {kUser, 0700, 2, false, true};
    facts.file = {kUser, 0600, 1, true, false};
    return facts;
}
} // namespace

class TestOvpncliGuard : public QObject {
    Q_OBJECT

    QString helper() const { return qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/ovpncli"); }

private slots:
    void goodProfileIsRebuiltForOpenVpn();
    void hostileProfilesAreRefused_data();
    void hostileProfilesAreRefused();
    void foreignOrOpenFilesAreRefused_data();
    void foreignOrOpenFilesAreRefused();
    void helperAsRootRefusesWithoutRunningAnything_data();
    void helperAsRootRefusesWithoutRunningAnything();
    void helperAsRootHandsOpenVpnAPrivateCopy();
};

void TestOvpncliGuard::goodProfileIsRebuiltForOpenVpn()
{
    const auto verdict = ProfileGuard::check(kGoodProfile, privateFacts(), "/run/pelorin-ovpncli.abc");
    QVERIFY2(verdict.accepted, verdict.reason.c_str());
    QCOMPARE(verdict.credentialsName, std::string("auth.txt"));
    // Comments dropped, the credentials moved to the copy, everything else as it was.
    QCOMPARE(QString::fromStdString(verdict.openVpnText),
             QStringLiteral("client\ndev tun\nproto udp\nremote 10.231.0.1 1194\nnobind\npersist-key\npersist-tun\n"
                            "resolv-retry infinite\nremote-cert-tls server\ndata-ciphers AES-256-GCM\n"
                            "cipher AES-256-GCM\nverb 3\nauth-user-pass /run/pelorin-ovpncli.abc/auth.txt\n"
                            "<ca>\n-----BEGIN CERTIFICATE-----\nMIIBszCCAVmgAwIBAgIUQ\n-----END CERTIFICATE-----\n"
                            "</ca>\n"));
    // openvpn's spellings: "--name", quotes, comments after arguments.
    const auto spelled = ProfileGuard::check("--verb 3 # loud\n'remote' \"my host\" 1194 ;x\n", privateFacts(), "/c");
    QVERIFY(spelled.accepted);
    QCOMPARE(spelled.openVpnText, std::string("verb 3\nremote \"my host\" 1194\n"));
}

void TestOvpncliGuard::hostileProfilesAreRefused_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("reason");
    const QString notAllowed = QStringLiteral("is not allowed");
    for (const char *line : {"up /bin/sh",
                             "down /bin/sh",
                             "route-up /bin/sh",
                             "tls-verify /bin/sh",
                             "ipchange /bin/sh",
                             "route-pre-down /bin/sh",
                             "learn-address /bin/sh",
                             "auth-user-pass-verify /bin/sh via-env",
                             "plugin /tmp/evil.so",
                             "management 127.0.0.1 7505",
                             "log /etc/pelorin",
                             "log-append /etc/pelorin",
                             "status /etc/pelorin",
                             "writepid /etc/pelorin",
                             "config /etc/pelorin.conf",
                             "cd /etc",
                             "daemon",
                             "chroot /tmp",
                             "iproute /tmp/ip",
                             "setenv PATH /tmp",
                             "askpass /etc/shadow",
                             "ca /etc/shadow",
                             "tls-auth /root/ta.key 1",
                             "dev-node /dev/sda",
                             "providers legacy",
                             "tmp-dir /etc",
                             "--up /bin/sh",
                             "\"up\" /bin/sh",
                             "UP /bin/sh",
                             "<connection>",
                             "<auth-user-pass>",
                             "<ca> extra"})
        QTest::newRow(line) << QByteArray(line) << notAllowed;
    QTest::newRow("scripts allowed") << QByteArray("script-security 2") << QStringLiteral("above 1");
    QTest::newRow("credentials elsewhere")
        << QByteArray("auth-user-pass /etc/shadow") << QStringLiteral("not beside the profile");
    QTest::newRow("credentials above") << QByteArray("auth-user-pass /run/user/1000/com.pelorin.vpn.mac/../x")
                                       << QStringLiteral("not beside the profile");
    QTest::newRow("credentials relative")
        << QByteArray("auth-user-pass auth.txt") << QStringLiteral("not beside the profile");
    QTest::newRow("two credentials files") << QByteArray("auth-user-pass /run/user/1000/com.pelorin.vpn.mac/a\n"
                                                         "auth-user-pass /run/user/1000/com.pelorin.vpn.mac/b")
                                           << QStringLiteral("two different files");
    QTest::newRow("extra argument") << QByteArray("nobind yes") << QStringLiteral("wrong number");
    QTest::newRow("open quote") << QByteArray("remote \"host 1194") << QStringLiteral("unclosed quote");
    QTest::newRow("escape in argument") << QByteArray("remote \"a\\\"b\"") << QStringLiteral("quote or a backslash");
    QTest::newRow("block never closed") << QByteArray("<ca>\nAAAA") << QStringLiteral("never closed");
    QTest::newRow("directive smuggled in a block")
        << QByteArray("<ca>\n</ca><up>\n</ca>") << QStringLiteral("'<' or '>' inside");
    QTest::newRow("NUL byte") << QByteArray("verb 3\0up /bin/sh", 17) << QStringLiteral("NUL byte");
    QTest::newRow("too large") << QByteArray(int(ProfileGuard::kMaxProfileBytes) + 1, '#')
                               << QStringLiteral("larger than");
    QTest::newRow("marker word never echoed")
        << QByteArray("CONNECTED") << QStringLiteral("(unprintable) is not allowed");
}

void TestOvpncliGuard::hostileProfilesAreRefused()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, reason);
    const std::string profile = kGoodProfile + line.toStdString() + "\n";
    const auto verdict = ProfileGuard::check(profile, privateFacts(), "/c");
    QVERIFY(!verdict.accepted);
    QVERIFY(verdict.openVpnText.empty());
    QVERIFY2(QString::fromStdString(verdict.reason).contains(reason), verdict.reason.c_str());
    QVERIFY(verdict.reason.find("CONNECTED") == std::string::npos);
}

void TestOvpncliGuard::foreignOrOpenFilesAreRefused_data()
{
    QTest::addColumn<int>("field"); // 0 folder owner, 1 folder mode, 2 file owner, 3 file mode, 4 links, 5 kind
    QTest::addColumn<unsigned>("value");
    QTest::addColumn<QString>("reason");
    QTest::newRow("folder of root") << 0 << 0u << "folder does not belong";
    QTest::newRow("folder readable by others") << 1 << 0755u << "folder is open";
    QTest::newRow("folder with group write") << 1 << 0720u << "folder is open";
    QTest::newRow("file of root") << 2 << 0u << "profile does not belong";
    QTest::newRow("file 0644") << 3 << 0644u << "mode 0600";
    QTest::newRow("file setuid") << 3 << 04600u << "mode 0600";
    QTest::newRow("hard link") << 4 << 2u << "hard links";
    QTest::newRow("not a regular file") << 5 << 0u << "not a regular file";
}

void TestOvpncliGuard::foreignOrOpenFilesAreRefused()
{
    QFETCH(int, field);
    QFETCH(unsigned, value);
    QFETCH(QString, reason);
    ProfileGuard::Facts facts = privateFacts();
    switch (field) {
    case 0:
        facts.folder.owner = value;
        break;
    case 1:
        facts.folder.mode = value;
        break;
    case 2:
        facts.file.owner = value;
        break;
    case 3:
        facts.file.mode = value;
        break;
    case 4:
        facts.file.links = value;
        break;
    default:
        facts.file.regular = false;
        break;
    }
    const auto verdict = ProfileGuard::check(kGoodProfile, facts, "/c");
    QVERIFY(!verdict.accepted);
    QVERIFY2(QString::fromStdString(verdict.reason).contains(reason), verdict.reason.c_str());
}

namespace {
// A world as the helper finds it when a user runs it through sudo: the user's private folder
// with a profile and auth.txt, plus a stand-in openvpn that leaves evidence when started.
struct RootWorld {
    QTemporaryDir dir;
    uid_t user = 0;
    gid_t group = 0;
    QString folder, evidence, fakeOpenVpn;

    bool make()
    {
        const passwd *nobody = getpwnam("nobody");
        if (!nobody || !dir.isValid())
            return false;
        user = nobody->pw_uid;
        group = nobody->pw_gid;
        folder = dir.filePath(QStringLiteral("user-run"));
        evidence = dir.filePath(QStringLiteral("evidence"));
        fakeOpenVpn = dir.filePath(QStringLiteral("openvpn"));
        QDir().mkpath(folder);
        chmod(dir.path().toLocal8Bit(), 0755);
        write(fakeOpenVpn,
              QStringLiteral("#!/bin/sh\necho ran >> '%1'\necho \"args: $*\"\ncat \"$2\"\n"
                             "sed 's/^/auth: /' \"$(dirname \"$2\")/auth.txt\"; echo\nls -ld \"$(dirname \"$2\")\"\n")
                  .arg(evidence)
                  .toUtf8(),
              0, 0700);
        return own(folder, 0700) && write(folder + QStringLiteral("/auth.txt"), "vpnuser\nsecret", user, 0600);
    }
    bool own(const QString &path, mode_t mode) const
    {
        const QByteArray p = QFile::encodeName(path);
        return lchown(p, user, group) == 0 && chmod(p, mode) == 0;
    }
    static bool write(const QString &path, const QByteArray &data, uid_t owner, mode_t mode)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return false;
        file.write(data);
        file.close();
        const QByteArray p = QFile::encodeName(path);
        return chown(p, owner, owner) == 0 && chmod(p, mode) == 0;
    }
    QString profileText(const QByteArray &extra) const
    {
        QString text = QString::fromStdString(kGoodProfile) + QString::fromUtf8(extra);
        return text.replace(QLatin1String(kFolder), folder);
    }
    // Runs the helper as root for `user`, the way sudo starts it.
    QString run(const QString &helper, const QString &profile, int *status, qint64 *pid = nullptr) const
    {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("SUDO_USER"));
        env.insert(QStringLiteral("SUDO_UID"), QString::number(user));
        env.insert(QStringLiteral("SUDO_GID"), QString::number(group));
        env.insert(QStringLiteral("OVPNCLI_OPENVPN"), fakeOpenVpn);
        process.setProcessEnvironment(env);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(helper, {profile});
        if (pid)
            *pid = process.processId();
        process.waitForFinished(20000);
        *status = process.exitCode();
        return QString::fromUtf8(process.readAll());
    }
};
} // namespace

void TestOvpncliGuard::helperAsRootRefusesWithoutRunningAnything_data()
{
    QTest::addColumn<QString>("place"); // how the profile is laid out
    QTest::addColumn<QByteArray>("extra");
    QTest::addColumn<QString>("reason");
    QTest::newRow("up script") << "private" << QByteArray("script-security 2\nup \"/bin/touch /etc/pelorin-up\"\n")
                               << "above 1";
    QTest::newRow("plugin") << "private" << QByteArray("plugin /tmp/pelorin-evil.so\n") << "'plugin' is not allowed";
    QTest::newRow("log into /etc") << "private" << QByteArray("log /etc/pelorin-log\n") << "'log' is not allowed";
    QTest::newRow("outside the private folder") << "outside" << QByteArray() << "folder does not belong";
    QTest::newRow("link to a root-owned file") << "link" << QByteArray() << "is a symbolic link";
    QTest::newRow("hard link to a root-owned file") << "hardlink" << QByteArray() << "does not belong";
    QTest::newRow("file 0644") << "open" << QByteArray() << "mode 0600";
    QTest::newRow("credentials link to a root file") << "credlink" << QByteArray() << "credentials file is a symbolic";
}

void TestOvpncliGuard::helperAsRootRefusesWithoutRunningAnything()
{
    if (geteuid() != 0)
        QSKIP("needs root: the helper is run as root for an unprivileged user");
    QFETCH(QString, place);
    QFETCH(QByteArray, extra);
    QFETCH(QString, reason);
    RootWorld world;
    QVERIFY(world.make());
    const QByteArray text = world.profileText(extra).toUtf8();
    QString profile = world.folder + QStringLiteral("/NQ_VPN_United States.ovpn");
    const QString rootFile = world.dir.filePath(QStringLiteral("root-only.ovpn"));
    QVERIFY(RootWorld::write(rootFile, text, 0, 0600));
    if (place == QLatin1String("outside")) {
        profile = world.dir.filePath(QStringLiteral("outside.ovpn"));
        QVERIFY(RootWorld::write(profile, text, world.user, 0600));
    } else if (place == QLatin1String("link")) {
        QVERIFY(QFile::link(rootFile, profile));
        QVERIFY(lchown(QFile::encodeName(profile), world.user, world.group) == 0);
    } else if (place == QLatin1String("hardlink")) {
        QVERIFY(::link(QFile::encodeName(rootFile), QFile::encodeName(profile)) == 0);
    } else {
        QVERIFY(RootWorld::write(profile, text, world.user, place == QLatin1String("open") ? 0644 : 0600));
    }
    if (place == QLatin1String("credlink")) {
        const QString auth = world.folder + QStringLiteral("/auth.txt");
        QVERIFY(QFile::remove(auth));
        QVERIFY(QFile::link(rootFile, auth));
        QVERIFY(lchown(QFile::encodeName(auth), world.user, world.group) == 0);
    }

    int status = 0;
    qint64 pid = 0;
    const QString output = world.run(helper(), profile, &status, &pid);
    QVERIFY2(output.contains(QStringLiteral("ovpncli: refused the profile: ")) && output.contains(reason),
             qPrintable(output));
    QVERIFY2(output.endsWith(QStringLiteral("ovpncli: state DISCONNECTED, nothing was run\n")), qPrintable(output));
    QVERIFY(!output.contains(QStringLiteral(" CONNECTED")));
    QVERIFY(status != 0);
    QVERIFY2(!QFile::exists(world.evidence), "openvpn was started");
    for (const char *written : {"/etc/pelorin-up", "/etc/pelorin-log"})
        QVERIFY(!QFile::exists(QString::fromLatin1(written)));
    QVERIFY(QDir(QStringLiteral("/run"))
                .entryList({QStringLiteral("pelorin-ovpncli.%1.*").arg(pid)}, QDir::Dirs)
                .isEmpty());
}

void TestOvpncliGuard::helperAsRootHandsOpenVpnAPrivateCopy()
{
    if (geteuid() != 0)
        QSKIP("needs root: the helper is run as root for an unprivileged user");
    RootWorld world;
    QVERIFY(world.make());
    const QString profile = world.folder + QStringLiteral("/NQ_VPN_United States.ovpn");
    QVERIFY(RootWorld::write(profile, world.profileText("script-security 1\n").toUtf8(), world.user, 0600));
    int status = 0;
    const QString output = world.run(helper(), profile, &status);
    QVERIFY2(QFile::exists(world.evidence), qPrintable(output));
    // openvpn read root's copy (auth.txt beside it), with scripts forbidden after the profile.
    static const QRegularExpression copy(
        QStringLiteral("args: --config (/run/pelorin-ovpncli\\.[\\w.]+)/profile\\.ovpn "
                       "--script-security 1\n"));
    const auto match = copy.match(output);
    QVERIFY2(match.hasMatch(), qPrintable(output));
    QVERIFY(output.contains(QStringLiteral("openvpn: auth-user-pass %1/auth.txt\n").arg(match.captured(1))));
    QVERIFY(output.contains(QStringLiteral("openvpn: auth: vpnuser\nopenvpn: auth: secret\n")));
    QVERIFY2(output.contains(QStringLiteral("openvpn: drwx------ 2 root root")), qPrintable(output));
    QVERIFY(!QFileInfo::exists(match.captured(1))); // removed when openvpn has ended
}

QTEST_GUILESS_MAIN(TestOvpncliGuard)
#include "tst_ovpncli_guard.moc"
