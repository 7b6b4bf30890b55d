// The ovpncli program itself, with a stand-in for openvpn: whatever openvpn writes and however
// the run ends, the application gets valid UTF-8 lines and exactly one disconnect marker, last.
#include "vpn/TunnelOutputParser.h"

#include <QtTest>

#include <csignal>

#include <unistd.h>

namespace {
constexpr int kWaitMs = 15000;

bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) == 0;
}
} // namespace

class TestOvpncli : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void runsEndWithOneMarker_data();
    void runsEndWithOneMarker();
    void stopSignalEndsOpenVpnFirst();
    void killedHelperLeavesNoOpenVpn();

private:
    // Starts ovpncli on a profile with `script` as openvpn.
    void start(const QByteArray &script);
    qint64 standInPid() const;

    QTemporaryDir m_dir;
    std::unique_ptr<QProcess> m_client;
    QByteArray m_output;
};

void TestOvpncli::init()
{
    m_output.clear();
}

void TestOvpncli::cleanup()
{
    if (const qint64 pid = standInPid(); processAlive(pid))
        ::kill(static_cast<pid_t>(pid), SIGKILL);
    m_client.reset();
    QFile::remove(m_dir.filePath(QStringLiteral("pid")));
}

void TestOvpncli::start(const QByteArray &script)
{
    QFile standIn(m_dir.filePath(QStringLiteral("openvpn")));
    QVERIFY(standIn.open(QIODevice::WriteOnly | QIODevice::Truncate));
    standIn.write("#!/bin/bash\necho $$ > \"$(dirname \"$0\")/pid\"\n" + script);
    standIn.close();
    standIn.setPermissions(standIn.permissions() | QFileDevice::ExeOwner);
    QFile profile(m_dir.filePath(QStringLiteral("p.ovpn")));
    QVERIFY(profile.open(QIODevice::WriteOnly));
    profile.write("client\ndev tun\n");
    profile.close();
    // ovpncli runs only a profile private to the user who asked.
    profile.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);

    m_client = std::make_unique<QProcess>();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("OVPNCLI_OPENVPN"), standIn.fileName());
    env.remove(QStringLiteral("SUDO_USER"));
    m_client->setProcessEnvironment(env);
    m_client->setProcessChannelMode(QProcess::MergedChannels);
    connect(m_client.get(), &QProcess::readyRead, this, [this] { m_output += m_client->readAll(); });
    m_client->start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/ovpncli"),
                    {profile.fileName()});
    QVERIFY(m_client->waitForStarted());
}

qint64 TestOvpncli::standInPid() const
{
    QFile file(m_dir.filePath(QStringLiteral("pid")));
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toLongLong() : 0;
}

// Every line valid UTF-8; the states its lines report, in order (disconnects included).
QList<int> statesOf(const QByteArray &output)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(output);
    if (decoder.hasError())
        return {-1};
    QList<int> states;
    for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        if (const auto state = TunnelOutputParser::stateFor(line))
            states << int(*state);
    return states;
}

void TestOvpncli::runsEndWithOneMarker_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QList<int>>("states");
    QTest::addColumn<QByteArray>("expected"); // a line the output must hold
    // The stray bytes arrive in the same write as the line that brings the tunnel up.
    QTest::newRow("invalid UTF-8 next to the state line")
        << QByteArray("/usr/bin/printf 'bad \\xff\\xfe\\xc3 byte\\nInitialization Sequence Completed\\n'\n"
                      "exec sleep 0.3\n")
        << QList<int>{3, 1} << QByteArray("openvpn: bad \\xff\\xfe\\xc3 byte\n");
    // A soft restart is no disconnect, and the second "up" is not reported again; giving up
    // after the restart ends with the disconnect.
    QTest::newRow("restart, then gives up")
        << QByteArray("echo 'Initialization Sequence Completed'\n"
                      "echo 'SIGUSR1[soft,ping-restart] received, process restarting'\n"
                      "echo 'Initialization Sequence Completed'\n"
                      "echo 'SIGUSR1[soft,ping-restart] received, process restarting'\n"
                      "exit 1\n")
        << QList<int>{3, 1} << QByteArray("ovpncli: state DISCONNECTED, openvpn ended with status 1\n");
    QTest::newRow("dies before the tunnel is up")
        << QByteArray("echo 'TCP: connect to [AF_INET]10.0.0.1:1194 failed'\nexit 1\n") << QList<int>{1}
        << QByteArray("ovpncli: connect error, openvpn ended with status 1 before the tunnel was up\n");
    QTest::newRow("killed by a signal") << QByteArray("echo 'Initialization Sequence Completed'\nkill -9 $$\n")
                                        << QList<int>{3, 1}
                                        << QByteArray("ovpncli: state DISCONNECTED, openvpn ended with status 137\n");
    QTest::newRow("authentication refused")
        << QByteArray("echo 'AUTH: Received control message: AUTH_FAILED'\nexit 1\n") << QList<int>{0, 1}
        << QByteArray("AUTH_FAILED");
    QTest::newRow("a line longer than one pipe write")
        << QByteArray("head -c 9000 /dev/zero | tr '\\0' '\\351'; echo\necho 'Initialization Sequence Completed'\n")
        << QList<int>{3, 1} << QByteArray("ovpncli: state CONNECTED\n");
}

void TestOvpncli::runsEndWithOneMarker()
{
    QFETCH(QByteArray, script);
    QFETCH(QList<int>, states);
    QFETCH(QByteArray, expected);
    start(script);
    QVERIFY(m_client->waitForFinished(kWaitMs));
    m_output += m_client->readAll();
    QCOMPARE(statesOf(m_output), states);
    QVERIFY2(m_output.contains(expected), m_output.constData());
    // The marker is the last line, on its own.
    QCOMPARE(statesOf(m_output.mid(m_output.lastIndexOf('\n', -2) + 1)), QList<int>{1});
    for (const QByteArray &line : m_output.split('\n'))
        QVERIFY(line.size() < 4096);
}

void TestOvpncli::stopSignalEndsOpenVpnFirst()
{
    for (int signalNumber : {SIGTERM, SIGINT, SIGHUP}) {
        start("trap 'echo \"SIGTERM[hard,] received, process exiting\"; exit 0' TERM\n"
              "echo 'Initialization Sequence Completed'\nwhile :; do sleep 0.05; done\n");
        QTRY_VERIFY_WITH_TIMEOUT(m_output.contains("state CONNECTED"), kWaitMs);
        const qint64 openvpn = standInPid();
        ::kill(static_cast<pid_t>(m_client->processId()), signalNumber);
        QVERIFY(m_client->waitForFinished(kWaitMs));
        m_output += m_client->readAll();
        QVERIFY(!processAlive(openvpn));
        QVERIFY2(m_output.endsWith(QStringLiteral("ovpncli: Exiting due to signal %1\n").arg(signalNumber).toUtf8()),
                 m_output.constData());
        QCOMPARE(statesOf(m_output), (QList<int>{3, 1}));
        QCOMPARE(m_client->exitCode(), 128 + signalNumber);
        m_output.clear();
    }
}

void TestOvpncli::killedHelperLeavesNoOpenVpn()
{
    start("echo 'Initialization Sequence Completed'\nwhile :; do sleep 0.05; done\n");
    QTRY_VERIFY_WITH_TIMEOUT(m_output.contains("state CONNECTED"), kWaitMs);
    const qint64 openvpn = standInPid();
    QVERIFY(processAlive(openvpn));
    const qint64 helper = m_client->processId();
    ::kill(static_cast<pid_t>(helper), SIGKILL);
    QVERIFY(m_client->waitForFinished(kWaitMs));
    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(openvpn), kWaitMs);

    // Its copy of the profile outlived it; the next helper (this one, or one another test ran
    // meanwhile) removes it.
    const QDir run(geteuid() == 0 ? QStringLiteral("/run") : QDir::tempPath());
    const QStringList left{QStringLiteral("pelorin-ovpncli.%1.*").arg(helper)};
    m_output.clear();
    start("echo 'Initialization Sequence Completed'\nexit 0\n");
    QVERIFY(m_client->waitForFinished(kWaitMs));
    if (geteuid() == 0) // a folder others may write to (the fallback) is never swept
        QVERIFY(run.entryList(left, QDir::Dirs).isEmpty());
}

QTEST_GUILESS_MAIN(TestOvpncli)
#include "tst_ovpncli.moc"
