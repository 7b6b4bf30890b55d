// The ovpncli program itself, with a stand-in for openvpn (what it makes of openvpn's output
// is tst_ovpncli_rules's): however the run ends, the application gets valid UTF-8 lines and
// exactly one disconnect marker, last; and run as root for an unprivileged user, it hands
// openvpn nothing but a private copy of a checked profile.
#include "support/VpnTestEnvironment.h"
#include "vpn/TunnelOutputParser.h"

#include <QtTest>

#include <optional>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// The states the output's lines report, in order (disconnects included); {-1} if not UTF-8.
QList<int> statesOf(const QByteArray &output)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(output);
    QList<int> states;
    for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        if (const auto state = TunnelOutputParser::stateFor(line))
            states << int(*state);
    return decoder.hasError() ? QList<int>{-1} : states;
}

// Writes `data` to `path` with `mode`, owned by `owner` when one is given.
bool writeFile(const QString &path, const QByteArray &data, mode_t mode, std::optional<uid_t> owner = {})
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size())
        return false;
    file.close();
    const QByteArray name = QFile::encodeName(path);
    return (!owner || chown(name, *owner, *owner) == 0) && chmod(name, mode) == 0;
}

QStringList handOverFoldersOf(qint64 helperPid)
{
    return QDir(QStringLiteral("/run")).entryList({QStringLiteral("pelorin-ovpncli.%1.*").arg(helperPid)}, QDir::Dirs);
}
} // namespace

class TestOvpncli : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void runsEndWithOneMarker_data();
    void runsEndWithOneMarker();
    void signalsEndOpenVpnFirst();
    void asRootRefusesOrHandsOpenVpnAPrivateCopy_data();
    void asRootRefusesOrHandsOpenVpnAPrivateCopy();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }
    // Starts ovpncli on `profile` (a private one of ours if empty); for `user` the way sudo
    // starts it as root. The stand-in openvpn runs `script` after leaving its pid beside it;
    // none if empty.
    bool start(const QByteArray &script, QString profile = {}, std::optional<uid_t> user = {})
    {
        m_output.clear();
        QFile::remove(path(QStringLiteral("openvpn")));
        if (!writeFile(path(QStringLiteral("openvpn")), "#!/bin/bash\necho $$ > \"$(dirname \"$0\")/pid\"\n" + script,
                       script.isEmpty() ? 0600 : 0700))
            return false;
        if (profile.isEmpty()) {
            profile = path(QStringLiteral("p.ovpn"));
            QFile::remove(profile);
            writeFile(profile, "client\ndev tun\n", 0600);
        }
        m_client = std::make_unique<QProcess>();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("OVPNCLI_OPENVPN"), path(QStringLiteral("openvpn")));
        env.remove(QStringLiteral("SUDO_USER"));
        if (user) {
            env.insert(QStringLiteral("SUDO_UID"), QString::number(*user));
            env.insert(QStringLiteral("SUDO_GID"), QString::number(*user));
        }
        m_client->setProcessEnvironment(env);
        m_client->setProcessChannelMode(QProcess::MergedChannels);
        connect(m_client.get(), &QProcess::readyRead, this, [this] { m_output += m_client->readAll(); });
        m_client->start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/ovpncli"), {profile});
        return m_client->waitForStarted();
    }
    bool finish()
    {
        const bool finished = m_client->waitForFinished(kVpnWaitMs);
        m_output += m_client->readAll();
        return finished;
    }
    qint64 openVpnPid() const { return contentOf(path(QStringLiteral("pid"))).trimmed().toLongLong(); }

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<QProcess> m_client;
    QByteArray m_output;
};

void TestOvpncli::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
}

void TestOvpncli::cleanup()
{
    if (const qint64 pid = openVpnPid(); processAlive(pid))
        ::kill(static_cast<pid_t>(pid), SIGKILL);
    m_client.reset();
    m_dir.reset();
}

void TestOvpncli::runsEndWithOneMarker_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QList<int>>("states");
    QTest::addColumn<QByteArray>("expected"); // a line the output must hold
    QTest::newRow("dies before the tunnel is up")
        << QByteArray("echo 'TCP: connect to [AF_INET]10.0.0.1:1194 failed'\nexit 1\n") << QList<int>{1}
        << QByteArray("ovpncli: connect error, openvpn ended with status 1 before the tunnel was up\n");
    QTest::newRow("killed by a signal") << QByteArray("echo 'Initialization Sequence Completed'\nkill -9 $$\n")
                                        << QList<int>{3, 1}
                                        << QByteArray("ovpncli: state DISCONNECTED, openvpn ended with status 137\n");
    QTest::newRow("authentication refused")
        << QByteArray("echo 'AUTH: Received control message: AUTH_FAILED'\nexit 1\n") << QList<int>{0, 1}
        << QByteArray("connect error, the server rejected the user name or password; openvpn ended with status 1\n");
    QTest::newRow("no openvpn to run") << QByteArray() << QList<int>{1}
                                       << QByteArray("connect error, the openvpn program was not found");
}

void TestOvpncli::runsEndWithOneMarker()
{
    QFETCH(QByteArray, script);
    QFETCH(QList<int>, states);
    QFETCH(QByteArray, expected);
    QVERIFY(start(script));
    QVERIFY(finish());
    QCOMPARE(statesOf(m_output), states);
    QVERIFY2(m_output.contains(expected), m_output.constData());
    // The marker is the last line, on its own.
    QCOMPARE(statesOf(m_output.mid(m_output.lastIndexOf('\n', -2) + 1)), QList<int>{1});
}

void TestOvpncli::signalsEndOpenVpnFirst()
{
    // A SIGKILLed helper cannot stop openvpn, which ends all the same, nor remove its copy of
    // the profile: the next helper does (as root: a folder others may write to, the fallback,
    // is never swept).
    qint64 killed = 0;
    for (int signalNumber : {SIGKILL, SIGTERM, SIGINT, SIGHUP}) {
        QVERIFY(start("trap 'echo \"SIGTERM[hard,] received, process exiting\"; exit 0' TERM\n"
                      "echo 'Initialization Sequence Completed'\nwhile :; do sleep 0.05; done\n"));
        QTRY_VERIFY_WITH_TIMEOUT(m_output.contains("state CONNECTED"), kVpnWaitMs);
        if (killed && geteuid() == 0)
            QVERIFY(handOverFoldersOf(killed).isEmpty());
        const qint64 openvpn = openVpnPid();
        QVERIFY(processAlive(openvpn));
        const qint64 helper = m_client->processId();
        ::kill(static_cast<pid_t>(helper), signalNumber);
        QVERIFY(finish());
        if (signalNumber == SIGKILL) {
            QTRY_VERIFY_WITH_TIMEOUT(!processAlive(openvpn), kVpnWaitMs);
            killed = helper;
            QVERIFY(!handOverFoldersOf(killed).isEmpty());
            continue;
        }
        QVERIFY(!processAlive(openvpn));
        QVERIFY2(m_output.endsWith(QStringLiteral("ovpncli: Exiting due to signal %1\n").arg(signalNumber).toUtf8()),
                 m_output.constData());
        QCOMPARE(statesOf(m_output), (QList<int>{3, 1}));
        QCOMPARE(m_client->exitCode(), 128 + signalNumber);
    }
}

void TestOvpncli::asRootRefusesOrHandsOpenVpnAPrivateCopy_data()
{
    QTest::addColumn<QString>("place");  // how the profile is laid out
    QTest::addColumn<QString>("reason"); // none: accepted
    QTest::newRow("private profile") << "private" << QString();
    QTest::newRow("outside the private folder") << "outside" << QStringLiteral("folder does not belong");
    QTest::newRow("link to a root-owned file") << "link" << QStringLiteral("is a symbolic link");
    QTest::newRow("hard link to a root-owned file") << "hardlink" << QStringLiteral("does not belong");
    QTest::newRow("file 0644") << "open" << QStringLiteral("mode 0600");
    QTest::newRow("credentials link to a root file") << "credlink" << QStringLiteral("credentials file is a symbolic");
}

namespace {
// The world as the helper finds it when a user runs it through sudo: the user's private folder
// with auth.txt; the profile (`text`, folder filled in) is the caller's to place.
struct UserFolder {
    uid_t user = getpwnam("nobody")->pw_uid;
    QString folder;
    QByteArray text;

    UserFolder(const QString &root, const QByteArray &extra)
        : folder(root + QStringLiteral("/user-run")),
          text("client\ndev tun\nauth-user-pass " + folder.toUtf8() + "/auth.txt\n" + extra)
    {
    }
    bool make() const
    {
        return QDir().mkpath(folder) && chown(QFile::encodeName(folder), user, user) == 0 &&
               chmod(QFile::encodeName(folder), 0700) == 0 &&
               writeFile(folder + QStringLiteral("/auth.txt"), "vpnuser\nsecret", 0600, user);
    }
    QString profile() const { return folder + QStringLiteral("/NQ_VPN_United States.ovpn"); }
};
} // namespace

void TestOvpncli::asRootRefusesOrHandsOpenVpnAPrivateCopy()
{
    if (geteuid() != 0)
        QSKIP("needs root: the helper is run as root for an unprivileged user");
    QFETCH(QString, place);
    QFETCH(QString, reason);
    chmod(QFile::encodeName(m_dir->path()), 0755);
    const UserFolder world(m_dir->path(), "script-security 1\n");
    QVERIFY(world.make());
    QString profile = world.profile();
    const QString rootFile = path(QStringLiteral("root-only.ovpn"));
    QVERIFY(writeFile(rootFile, world.text, 0600, 0));
    if (place == QLatin1String("outside")) {
        profile = path(QStringLiteral("outside.ovpn"));
        QVERIFY(writeFile(profile, world.text, 0600, world.user));
    } else if (place == QLatin1String("link")) {
        QVERIFY(QFile::link(rootFile, profile));
        QVERIFY(lchown(QFile::encodeName(profile), world.user, world.user) == 0);
    } else if (place == QLatin1String("hardlink")) {
        QVERIFY(::link(QFile::encodeName(rootFile), QFile::encodeName(profile)) == 0);
    } else {
        QVERIFY(writeFile(profile, world.text, place == QLatin1String("open") ? 0644 : 0600, world.user));
    }
    if (place == QLatin1String("credlink")) {
        const QString auth = world.folder + QStringLiteral("/auth.txt");
        QVERIFY(QFile::remove(auth) && QFile::link(rootFile, auth));
        QVERIFY(lchown(QFile::encodeName(auth), world.user, world.user) == 0);
    }

    QVERIFY(start("echo \"args: $*\"\ncat \"$2\"\nsed 's/^/auth: /' \"$(dirname \"$2\")/auth.txt\"; echo\n"
                  "ls -ld \"$(dirname \"$2\")\"\n",
                  profile, world.user));
    QVERIFY(finish());
    if (!reason.isEmpty()) {
        QVERIFY2(m_output.contains("ovpncli: refused the profile: ") && m_output.contains(reason.toUtf8()),
                 m_output.constData());
        QVERIFY2(m_output.endsWith("ovpncli: state DISCONNECTED, nothing was run\n"), m_output.constData());
        QVERIFY(m_client->exitCode() != 0);
        QVERIFY2(!QFile::exists(path(QStringLiteral("pid"))), "openvpn was started");
        return;
    }
    const QString output = QString::fromUtf8(m_output);
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

QTEST_GUILESS_MAIN(TestOvpncli)
#include "tst_ovpncli.moc"
