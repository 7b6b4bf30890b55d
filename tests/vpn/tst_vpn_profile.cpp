// The tunnel profile files in the private temporary folder.
#include "support/LogCapture.h"
#include "vpn/TunnelProfileFiles.h"

#include <QtTest>

#include <sys/stat.h>

namespace {
QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

int modeOf(const QString &path)
{
    struct stat st {};
    return stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 0777) : -1;
}

QStringList entriesOf(const QString &dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}
} // namespace

class TestVpnProfile : public QObject {
    Q_OBJECT
private slots:
    void init();
    void profileNameKeepsTheClusterNameVerbatim();
    void namesThatWouldLeaveTheFolderAreRefused();
    void credentialsFile();
    void rewriteIsTextual();
    void preparationLeavesExactlyTheTwoFiles();
    void preparationAbandonRules();
    void clearingRemovesEverythingButNeverOutside();
    void pidFile();

private:
    std::unique_ptr<QTemporaryDir> m_root;
    QString m_tmp;
    std::unique_ptr<TunnelProfileFiles> m_files;
};

void TestVpnProfile::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    m_tmp = m_root->path() + QStringLiteral("/tmp");
    QDir().mkpath(m_tmp);
    m_files = std::make_unique<TunnelProfileFiles>([this] { return m_tmp; });
}

void TestVpnProfile::profileNameKeepsTheClusterNameVerbatim()
{
    for (const QString &name :
         {QStringLiteral("United States"), QStringLiteral("Côte d'Ivoire \"A\""), QStringLiteral("..")}) {
        const QString path = m_files->writeConfigToTemporaryFile(QStringLiteral("client\n"), name);
        QCOMPARE(path, m_tmp + QStringLiteral("/NQ_VPN_") + name + QStringLiteral(".ovpn"));
        QCOMPARE(contentOf(path), QByteArray("client\n"));
        QCOMPARE(modeOf(path), 0600);
    }
    // A nil name is written as the platform formats nil.
    QVERIFY(m_files->writeConfigToTemporaryFile(QStringLiteral("x"), QString())
                .endsWith(QStringLiteral("NQ_VPN_(null).ovpn")));
}

void TestVpnProfile::namesThatWouldLeaveTheFolderAreRefused()
{
    LogCapture logs;
    QDir().mkpath(m_tmp + QStringLiteral("/NQ_VPN_x"));
    for (const QString &name : {QStringLiteral("x/../../escaped"), QStringLiteral("a/b"), QString(300, u'n')}) {
        QVERIFY(m_files->writeConfigToTemporaryFile(QStringLiteral("client"), name).isNull());
    }
    QCOMPARE(
        logs.lines().filter(QStringLiteral("|NQVPNManager| Failed to write temporary OpenVPN config file: ")).size(),
        3);
    QCOMPARE(entriesOf(m_root->path()), QStringList{QStringLiteral("tmp")});
    QCOMPARE(entriesOf(m_tmp), QStringList{QStringLiteral("NQ_VPN_x")});
    QVERIFY(entriesOf(m_tmp + QStringLiteral("/NQ_VPN_x")).isEmpty());
}

void TestVpnProfile::credentialsFile()
{
    const QString path =
        m_files->writeCredentialsToTemporaryFileWithUsername(QStringLiteral("user"), QStringLiteral("pässword"));
    QCOMPARE(path, m_tmp + QStringLiteral("/auth.txt"));
    QCOMPARE(contentOf(path), QByteArray("user\np\xc3\xa4ssword"));
    QCOMPARE(modeOf(path), 0600);
    // Written again: replaced whole, still private.
    m_files->writeCredentialsToTemporaryFileWithUsername(QStringLiteral("u"), QStringLiteral(""));
    QCOMPARE(contentOf(path), QByteArray("u\n"));
    QCOMPARE(modeOf(path), 0600);

    // Nothing stored: written as "(null)" and the start goes on (the server refuses it).
    QCOMPARE(m_files->writeCredentialsToTemporaryFileWithUsername(QString(), QStringLiteral("p")), path);
    QCOMPARE(contentOf(path), QByteArray("(null)\np"));
}

void TestVpnProfile::rewriteIsTextual()
{
    const QString auth = QStringLiteral("/t/auth.txt");
    QCOMPARE(TunnelProfileFiles::rewriteAuthUserPass(QStringLiteral("client\nauth-user-pass\nverb 3\n"), auth),
             QStringLiteral("client\nauth-user-pass /t/auth.txt\nverb 3\n"));
    // Every occurrence, comments included; a named file is kept after the new path.
    QCOMPARE(TunnelProfileFiles::rewriteAuthUserPass(QStringLiteral("# auth-user-pass here\nauth-user-pass old.txt\n"),
                                                     auth),
             QStringLiteral("# auth-user-pass /t/auth.txt here\nauth-user-pass /t/auth.txt old.txt\n"));
    QCOMPARE(TunnelProfileFiles::rewriteAuthUserPass(QStringLiteral("client\nAUTH-USER-PASS\n"), auth),
             QStringLiteral("client\nAUTH-USER-PASS\n"));
}

void TestVpnProfile::preparationLeavesExactlyTheTwoFiles()
{
    QDir().mkpath(m_tmp + QStringLiteral("/old/deep"));
    QFile(m_tmp + QStringLiteral("/old/deep/f")).open(QIODevice::WriteOnly);
    QFile(m_tmp + QStringLiteral("/.hidden")).open(QIODevice::WriteOnly);
    QFile(m_tmp + QStringLiteral("/PelorinVPN.pid")).open(QIODevice::WriteOnly);
    const QString path = m_files->prepare(QStringLiteral("client\nauth-user-pass\n"), QStringLiteral("United States"),
                                          QStringLiteral("u"), QStringLiteral("p"));
    QCOMPARE(entriesOf(m_tmp), (QStringList{QStringLiteral("NQ_VPN_United States.ovpn"), QStringLiteral("auth.txt")}));
    QCOMPARE(contentOf(path), ("client\nauth-user-pass " + m_tmp + "/auth.txt\n").toUtf8());
}

void TestVpnProfile::preparationAbandonRules()
{
    LogCapture logs;
    QFile(m_tmp + QStringLiteral("/stale")).open(QIODevice::WriteOnly);
    QVERIFY(m_files->prepare(QStringLiteral("client"), QStringLiteral("a/b"), QStringLiteral("u"), QStringLiteral("p"))
                .isNull());
    QCOMPARE(logs.lines().last(), QStringLiteral("|NQVPNManager| Failed to create temporary configuration file."));
    QVERIFY(entriesOf(m_tmp).isEmpty());
}

void TestVpnProfile::clearingRemovesEverythingButNeverOutside()
{
    // A link inside to a folder outside: the link goes, the target and its content stay.
    const QString outside = m_root->path() + QStringLiteral("/outside");
    QDir().mkpath(outside);
    QFile(outside + QStringLiteral("/keep")).open(QIODevice::WriteOnly);
    QFile::link(outside, m_tmp + QStringLiteral("/link"));
    QDir().mkpath(m_tmp + QStringLiteral("/sub"));
    m_files->clearTemporaryDirectory();
    QVERIFY(entriesOf(m_tmp).isEmpty());
    QCOMPARE(entriesOf(outside), QStringList{QStringLiteral("keep")});

    // No usable folder (the platform refused it): nothing is touched, not even the current one.
    const QString cwd = QDir::currentPath();
    QDir::setCurrent(outside);
    TunnelProfileFiles none([] { return QString(); });
    none.clearTemporaryDirectory();
    QVERIFY(none.writeConfigToTemporaryFile(QStringLiteral("c"), QStringLiteral("DE")).isNull());
    QDir::setCurrent(cwd);
    QCOMPARE(entriesOf(outside), QStringList{QStringLiteral("keep")});
}

void TestVpnProfile::pidFile()
{
    QCOMPARE(m_files->readPidFile(), 0);
    m_files->writePidFile(4242);
    QCOMPARE(contentOf(m_tmp + QStringLiteral("/PelorinVPN.pid")), QByteArray("4242"));
    QCOMPARE(m_files->readPidFile(), 4242);
    m_files->removeFile(QStringLiteral("PelorinVPN.pid"));
    QCOMPARE(m_files->readPidFile(), 0);
}

QTEST_GUILESS_MAIN(TestVpnProfile)
#include "tst_vpn_profile.moc"
