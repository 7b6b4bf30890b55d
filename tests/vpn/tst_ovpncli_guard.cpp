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
                                 "client\ndev tun\nproto udp\nremote 10.231.0.1 1194\nnobind\n"
                                 "remote-cert-tls server\ndata-ciphers AES-256-GCM\nverb 3\n"
                                 "auth-user-pass /run/user/1000/com.pelorin.vpn.mac/auth.txt\n"
                                 "<ca>\n-----BEGIN CERTIFICATE-----\nMIIBszCCAVmgAwIBAgIUQ\n-----END CERTIFICATE-----\n"
                                 "</ca>\n";

ProfileGuard::Facts privateFacts()
{
    return {kUser, kFolder, {kUser, 0700, 2, false, true}, {kUser, 0600, 1, true, false}};
}
} // namespace

class TestOvpncliGuard : public QObject {
    Q_OBJECT

    QString helper() const { return qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/ovpncli"); }

private slots:
    void goodProfileIsRebuiltForOpenVpn();
    void hostileProfilesAreRefused_data();
    void hostileProfilesAreRefused();
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
             QStringLiteral("client\ndev tun\nproto udp\nremote 10.231.0.1 1194\nnobind\nremote-cert-tls server\n"
                            "data-ciphers AES-256-GCM\nverb 3\nauth-user-pass /run/pelorin-ovpncli.abc/auth.txt\n"
                            "<ca>\n-----BEGIN CERTIFICATE-----\nMIIBszCCAVmgAwIBAgIUQ\n-----END CERTIFICATE-----\n"
                            "</ca>\n"));
    // openvpn's spellings: "--name", quotes, escapes, comments after arguments.
    const auto spelled =
        ProfileGuard::check("--verb 3 # loud\n'remote' \"my host\" 1194 ;x\n\tdev tun\\ 0\r\n", privateFacts(), "/c");
    QVERIFY2(spelled.accepted, spelled.reason.c_str());
    QCOMPARE(spelled.openVpnText, std::string("verb 3\nremote \"my host\" 1194\ndev \"tun 0\"\n"));
}

void TestOvpncliGuard::hostileProfilesAreRefused_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("reason");
    // Programs, plugins, sockets, files written or read as root, and spellings of them.
    for (const QString &name : QStringLiteral("up down route-up tls-verify ipchange route-pre-down learn-address "
                                              "auth-user-pass-verify plugin management log log-append status writepid "
                                              "config cd daemon chroot iproute setenv askpass ca tls-auth dev-node "
                                              "providers tmp-dir --up \"up\" UP <connection> <auth-user-pass> <ca>")
                                   .split(QLatin1Char(' ')))
        QTest::newRow(qPrintable(name)) << (name + QStringLiteral(" /x")).toUtf8() << "is not allowed";
    QTest::newRow("scripts allowed") << QByteArray("script-security 2") << "above 1";
    for (const char *path : {"/etc/shadow", "/run/user/1000/com.pelorin.vpn.mac/../x", "auth.txt",
                             "/run/user/1000/com.pelorin.vpn.mac/", "/run/user/1000/com.pelorin.vpn.mac.x/a"})
        QTest::newRow(path) << "auth-user-pass " + QByteArray(path) << "not beside the profile";
    QTest::newRow("two credentials files") << QByteArray("auth-user-pass /run/user/1000/com.pelorin.vpn.mac/a\n"
                                                         "auth-user-pass /run/user/1000/com.pelorin.vpn.mac/b")
                                           << "two different files";
    QTest::newRow("extra argument") << QByteArray("nobind yes") << "wrong number";
    QTest::newRow("too many arguments") << QByteArray("redirect-gateway a b c d e f g") << "wrong number";
    QTest::newRow("missing argument") << QByteArray("keepalive 10") << "wrong number";
    QTest::newRow("open quote") << QByteArray("remote \"host 1194") << "unclosed quote";
    QTest::newRow("escape in argument") << QByteArray("remote \"a\\\"b\"") << "quote or a backslash";
    QTest::newRow("long argument") << "remote " + QByteArray(256, 'h') << "longer than 255";
    QTest::newRow("block never closed") << QByteArray("<ca>\nAAAA") << "never closed";
    QTest::newRow("directive smuggled in a block") << QByteArray("<ca>\n</ca><up>\n</ca>") << "'<' or '>' inside";
    QTest::newRow("NUL byte") << QByteArray("verb 3\0up /bin/sh", 17) << "NUL byte";
    QTest::newRow("too large") << QByteArray(int(ProfileGuard::kMaxProfileBytes) + 1, '#') << "larger than";
    QTest::newRow("marker word never echoed") << QByteArray("CONNECTED") << "(unprintable) is not allowed";
}

void TestOvpncliGuard::hostileProfilesAreRefused()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, reason);
    const auto verdict = ProfileGuard::check(kGoodProfile + line.toStdString() + "\n", privateFacts(), "/c");
    QVERIFY(!verdict.accepted);
    QVERIFY(verdict.openVpnText.empty());
    QVERIFY2(QString::fromStdString(verdict.reason).contains(reason), verdict.reason.c_str());
    QVERIFY(verdict.reason.find("CONNECTED") == std::string::npos);
}

void TestOvpncliGuard::foreignOrOpenFilesAreRefused()
{
    using Facts = ProfileGuard::Facts;
    const std::pair<void (*)(Facts &), const char *> cases[] = {
        {[](Facts &f) { f.folderPath = "run/user"; }, "not absolute"},
        {[](Facts &f) { f.folder.directory = false; }, "folder is not a folder"},
        {[](Facts &f) { f.folder.owner = 0; }, "folder does not belong"},
        {[](Facts &f) { f.folder.mode = 0701; }, "folder is open"},
        {[](Facts &f) { f.folder.mode = 0720; }, "folder is open"},
        {[](Facts &f) { f.file.regular = false; }, "not a regular file"},
        {[](Facts &f) { f.file.owner = 0; }, "profile does not belong"},
        {[](Facts &f) { f.file.mode = 0644; }, "mode 0600"},
        {[](Facts &f) { f.file.mode = 04600; }, "mode 0600"},
        {[](Facts &f) { f.file.links = 2; }, "hard links"},
    };
    for (const auto &[change, reason] : cases) {
        Facts facts = privateFacts();
        change(facts);
        const auto verdict = ProfileGuard::check(kGoodProfile, facts, "/c");
        QVERIFY2(!verdict.accepted && verdict.reason.find(reason) != std::string::npos, reason);
    }
    // The credentials file beside it: the user's own, closed to others, no links.
    const std::pair<ProfileGuard::FileFacts, const char *> credentials[] = {
        {{kUser, 0600, 1, true, false}, ""},
        {{kUser, 0640, 1, true, false}, "open to other users"},
        {{0, 0600, 1, true, false}, "does not belong"},
        {{kUser, 0600, 2, true, false}, "hard links"},
        {{kUser, 0600, 1, false, false}, "not a regular file"},
    };
    for (const auto &[file, reason] : credentials) {
        const std::string problem = ProfileGuard::credentialsProblem(kUser, file);
        QVERIFY2(*reason ? problem.find(reason) != std::string::npos : problem.empty(), problem.c_str());
    }
}

namespace {
// A world as the helper finds it when a user runs it through sudo: the user's private folder
// with a profile and auth.txt, plus a stand-in openvpn that leaves evidence when started.
struct RootWorld {
    QTemporaryDir dir;
    uid_t user = getpwnam("nobody")->pw_uid;
    QString folder = dir.filePath(QStringLiteral("user-run")), evidence = dir.filePath(QStringLiteral("evidence"));
    QString profile = folder + QStringLiteral("/NQ_VPN_United States.ovpn");

    bool make()
    {
        QDir().mkpath(folder);
        chmod(dir.path().toLocal8Bit(), 0755);
        return write(dir.filePath(QStringLiteral("openvpn")),
                     QStringLiteral(
                         "#!/bin/sh\necho ran >> '%1'\necho \"args: $*\"\ncat \"$2\"\n"
                         "sed 's/^/auth: /' \"$(dirname \"$2\")/auth.txt\"; echo\nls -ld \"$(dirname \"$2\")\"\n")
                         .arg(evidence)
                         .toUtf8(),
                     0, 0700) &&
               own(folder, 0700) && write(folder + QStringLiteral("/auth.txt"), "vpnuser\nsecret", user, 0600);
    }
    bool own(const QString &path, mode_t mode) const
    {
        return lchown(QFile::encodeName(path), user, user) == 0 && chmod(QFile::encodeName(path), mode) == 0;
    }
    static bool write(const QString &path, const QByteArray &data, uid_t owner, mode_t mode)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size())
            return false;
        file.close();
        return chown(QFile::encodeName(path), owner, owner) == 0 && chmod(QFile::encodeName(path), mode) == 0;
    }
    QByteArray profileText(const QByteArray &extra) const
    {
        return QString(QString::fromStdString(kGoodProfile) + QString::fromUtf8(extra))
            .replace(QLatin1String(kFolder), folder)
            .toUtf8();
    }
    // Runs the helper as root for `user`, the way sudo starts it.
    QString run(const QString &helper, const QString &path, int *status, qint64 *pid = nullptr) const
    {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("SUDO_USER"));
        env.insert(QStringLiteral("SUDO_UID"), QString::number(user));
        env.insert(QStringLiteral("SUDO_GID"), QString::number(user));
        env.insert(QStringLiteral("OVPNCLI_OPENVPN"), dir.filePath(QStringLiteral("openvpn")));
        process.setProcessEnvironment(env);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(helper, {path});
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
    const QByteArray text = world.profileText(extra);
    QString profile = world.profile;
    const QString rootFile = world.dir.filePath(QStringLiteral("root-only.ovpn"));
    QVERIFY(RootWorld::write(rootFile, text, 0, 0600));
    if (place == QLatin1String("outside")) {
        profile = world.dir.filePath(QStringLiteral("outside.ovpn"));
        QVERIFY(RootWorld::write(profile, text, world.user, 0600));
    } else if (place == QLatin1String("link")) {
        QVERIFY(QFile::link(rootFile, profile) && world.own(profile, 0600));
    } else if (place == QLatin1String("hardlink")) {
        QVERIFY(::link(QFile::encodeName(rootFile), QFile::encodeName(profile)) == 0);
    } else {
        QVERIFY(RootWorld::write(profile, text, world.user, place == QLatin1String("open") ? 0644 : 0600));
    }
    if (place == QLatin1String("credlink")) {
        const QString auth = world.folder + QStringLiteral("/auth.txt");
        QVERIFY(QFile::remove(auth) && QFile::link(rootFile, auth));
        QVERIFY(lchown(QFile::encodeName(auth), world.user, world.user) == 0);
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
    QVERIFY(!QFile::exists(QStringLiteral("/etc/pelorin-up")) && !QFile::exists(QStringLiteral("/etc/pelorin-log")));
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
    QVERIFY(RootWorld::write(world.profile, world.profileText("script-security 1\n"), world.user, 0600));
    int status = 0;
    const QString output = world.run(helper(), world.profile, &status);
    QVERIFY2(QFile::exists(world.evidence), qPrintable(output));
    // openvpn read root's copy (auth.txt beside it), with scripts forbidden after the profile.
    static const QRegularExpression copy(
        QStringLiteral("args: --config (/run/pelorin-ovpncli\\.[\\w.]+)/profile\\.ovpn --script-security 1\n"));
    const auto match = copy.match(output);
    QVERIFY2(match.hasMatch(), qPrintable(output));
    QVERIFY(output.contains(QStringLiteral("openvpn: auth-user-pass %1/auth.txt\n").arg(match.captured(1))));
    QVERIFY(output.contains(QStringLiteral("openvpn: auth: vpnuser\nopenvpn: auth: secret\n")));
    QVERIFY2(output.contains(QStringLiteral("openvpn: drwx------ 2 root root")), qPrintable(output));
    QVERIFY(!QFileInfo::exists(match.captured(1))); // removed when openvpn has ended
}

QTEST_GUILESS_MAIN(TestOvpncliGuard)
#include "tst_ovpncli_guard.moc"
