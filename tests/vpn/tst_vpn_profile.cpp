// The tunnel profile files in the private temporary folder.
#include "support/LogCapture.h"
#include "support/VpnTestEnvironment.h"
#include "vpn/TunnelProfileFiles.h"

#include <QtTest>

#include <sys/stat.h>

namespace {
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
    void filesAreWrittenWholeAndPrivate();
    void namesThatWouldLeaveTheFolderAreRefused();
    void preparationLeavesExactlyTheTwoFiles();
    void clearingRemovesEverythingButNeverOutside();

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

void TestVpnProfile::filesAreWrittenWholeAndPrivate()
{
    // The cluster name is kept verbatim; a nil one is written as the platform formats nil.
    for (const QString &name : {QStringLiteral("Côte d'Ivoire \"A\""), QStringLiteral(".."), QString()}) {
        const QString path = m_files->writeConfigToTemporaryFile(QStringLiteral("client\n"), name);
        QCOMPARE(path, m_tmp + QStringLiteral("/NQ_VPN_%1.ovpn").arg(name.isNull() ? "(null)" : name));
        QCOMPARE(contentOf(path), QByteArray("client\n"));
        QCOMPARE(modeOf(path), 0600);
    }
    const QString auth = m_files->writeCredentialsToTemporaryFileWithUsername("user", QStringLiteral("pässword"));
    QCOMPARE(auth, m_tmp + QStringLiteral("/auth.txt"));
    QCOMPARE(contentOf(auth), QByteArray("user\np\xc3\xa4ssword"));
    // Written again: replaced whole, still private; nothing stored is written as "(null)".
    QCOMPARE(m_files->writeCredentialsToTemporaryFileWithUsername(QString(), QStringLiteral("")), auth);
    QCOMPARE(contentOf(auth), QByteArray("(null)\n"));
    QCOMPARE(modeOf(auth), 0600);

    QCOMPARE(m_files->readPidFile(), 0);
    m_files->writePidFile(4242);
    QCOMPARE(m_files->readPidFile(), 4242);
    m_files->removeFile(QStringLiteral("PelorinVPN.pid"));
    QCOMPARE(m_files->readPidFile(), 0);
}

void TestVpnProfile::namesThatWouldLeaveTheFolderAreRefused()
{
    LogCapture logs;
    QDir().mkpath(m_tmp + QStringLiteral("/NQ_VPN_x"));
    for (const QString &name : {QStringLiteral("x/../../escaped"), QString(300, u'n')})
        QVERIFY(m_files->writeConfigToTemporaryFile(QStringLiteral("client"), name).isNull());
    QCOMPARE(logs.lines().filter("|NQVPNManager| Failed to write temporary OpenVPN config file: ").size(), 2);
    // Preparing with such a name abandons the start and leaves the folder empty.
    QVERIFY(m_files->prepare(QStringLiteral("client"), QStringLiteral("a/b"), "u", "p").isNull());
    QCOMPARE(logs.lines().last(), QStringLiteral("|NQVPNManager| Failed to create temporary configuration file."));
    QVERIFY(entriesOf(m_tmp).isEmpty());
    QCOMPARE(entriesOf(m_root->path()), QStringList{QStringLiteral("tmp")});
}

void TestVpnProfile::preparationLeavesExactlyTheTwoFiles()
{
    QDir().mkpath(m_tmp + QStringLiteral("/old/deep"));
    QFile(m_tmp + QStringLiteral("/old/deep/f")).open(QIODevice::WriteOnly);
    QFile(m_tmp + QStringLiteral("/.hidden")).open(QIODevice::WriteOnly);
    // The rewrite is textual: every occurrence, comments included, a named file kept after it.
    const QString path = m_files->prepare(QStringLiteral("# auth-user-pass\nauth-user-pass old\nAUTH-USER-PASS\n"),
                                          QStringLiteral("United States"), "u", "p");
    QCOMPARE(entriesOf(m_tmp), (QStringList{QStringLiteral("NQ_VPN_United States.ovpn"), QStringLiteral("auth.txt")}));
    const QByteArray auth = (m_tmp + QStringLiteral("/auth.txt")).toUtf8();
    QCOMPARE(contentOf(path), "# auth-user-pass " + auth + "\nauth-user-pass " + auth + " old\nAUTH-USER-PASS\n");
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

QTEST_GUILESS_MAIN(TestVpnProfile)
#include "tst_vpn_profile.moc"
