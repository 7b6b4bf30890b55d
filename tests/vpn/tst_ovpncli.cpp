// The ovpncli program itself, with a stand-in for openvpn: whatever openvpn writes and however
// the run ends, the application gets valid UTF-8 lines and exactly one disconnect marker, last.
#include "support/VpnTestEnvironment.h"
#include "vpn/TunnelOutputParser.h"

#include <QtTest>

class TestOvpncli : public QObject {
    Q_OBJECT
private slots:
    void cleanup();
    void runsEndWithOneMarker_data();
    void runsEndWithOneMarker();
    void stopSignalEndsOpenVpnFirst();
    void killedHelperLeavesNoOpenVpn();

private:
    // Starts ovpncli on a private profile with `script` as openvpn (none if empty); false if it
    // did not start.
    bool start(const QByteArray &script)
    {
        m_output.clear();
        const QString standIn = m_dir.filePath(QStringLiteral("openvpn"));
        QFile::remove(standIn);
        QFile::remove(m_dir.filePath(QStringLiteral("p.ovpn")));
        writeFile(standIn, "#!/bin/bash\necho $$ > \"$(dirname \"$0\")/pid\"\n" + script,
                  script.isEmpty() ? QFileDevice::Permissions() : QFileDevice::ExeOwner);
        writeFile(m_dir.filePath(QStringLiteral("p.ovpn")), "client\ndev tun\n", {});
        m_client = std::make_unique<QProcess>();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("OVPNCLI_OPENVPN"), standIn);
        env.remove(QStringLiteral("SUDO_USER"));
        m_client->setProcessEnvironment(env);
        m_client->setProcessChannelMode(QProcess::MergedChannels);
        connect(m_client.get(), &QProcess::readyRead, this, [this] { m_output += m_client->readAll(); });
        m_client->start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/ovpncli"),
                        {m_dir.filePath(QStringLiteral("p.ovpn"))});
        return m_client->waitForStarted();
    }
    static void writeFile(const QString &path, const QByteArray &content, QFileDevice::Permissions extra)
    {
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        file.write(content);
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | extra);
    }
    bool finish()
    {
        const bool finished = m_client->waitForFinished(kVpnWaitMs);
        m_output += m_client->readAll();
        return finished;
    }
    qint64 standInPid() const { return contentOf(m_dir.filePath(QStringLiteral("pid"))).trimmed().toLongLong(); }

    QTemporaryDir m_dir;
    std::unique_ptr<QProcess> m_client;
    QByteArray m_output;
};

void TestOvpncli::cleanup()
{
    if (const qint64 pid = standInPid(); processAlive(pid))
        ::kill(static_cast<pid_t>(pid), SIGKILL);
    m_client.reset();
    QFile::remove(m_dir.filePath(QStringLiteral("pid")));
}

// The states the output's lines report, in order (disconnects included); {-1} if not UTF-8.
static QList<int> statesOf(const QByteArray &output)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(output);
    QList<int> states;
    for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        if (const auto state = TunnelOutputParser::stateFor(line))
            states << int(*state);
    return decoder.hasError() ? QList<int>{-1} : states;
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
        << QByteArray("for i in 1 2; do echo 'Initialization Sequence Completed'\n"
                      "echo 'SIGUSR1[soft,ping-restart] received, process restarting'; done\nexit 1\n")
        << QList<int>{3, 1} << QByteArray("ovpncli: state DISCONNECTED, openvpn ended with status 1\n");
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
    QTest::newRow("a line longer than one pipe write")
        << QByteArray("head -c 9000 /dev/zero | tr '\\0' '\\351'; echo\necho 'Initialization Sequence Completed'\n")
        << QList<int>{3, 1} << QByteArray("ovpncli: state CONNECTED\n");
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
    for (const QByteArray &line : m_output.split('\n'))
        QVERIFY(line.size() < 4096);
}

void TestOvpncli::stopSignalEndsOpenVpnFirst()
{
    for (int signalNumber : {SIGTERM, SIGINT, SIGHUP}) {
        QVERIFY(start("trap 'echo \"SIGTERM[hard,] received, process exiting\"; exit 0' TERM\n"
                      "echo 'Initialization Sequence Completed'\nwhile :; do sleep 0.05; done\n"));
        QTRY_VERIFY_WITH_TIMEOUT(m_output.contains("state CONNECTED"), kVpnWaitMs);
        const qint64 openvpn = standInPid();
        ::kill(static_cast<pid_t>(m_client->processId()), signalNumber);
        QVERIFY(finish());
        QVERIFY(!processAlive(openvpn));
        QVERIFY2(m_output.endsWith(QStringLiteral("ovpncli: Exiting due to signal %1\n").arg(signalNumber).toUtf8()),
                 m_output.constData());
        QCOMPARE(statesOf(m_output), (QList<int>{3, 1}));
        QCOMPARE(m_client->exitCode(), 128 + signalNumber);
    }
}

void TestOvpncli::killedHelperLeavesNoOpenVpn()
{
    QVERIFY(start("echo 'Initialization Sequence Completed'\nwhile :; do sleep 0.05; done\n"));
    QTRY_VERIFY_WITH_TIMEOUT(m_output.contains("state CONNECTED"), kVpnWaitMs);
    const qint64 openvpn = standInPid();
    QVERIFY(processAlive(openvpn));
    const qint64 helper = m_client->processId();
    ::kill(static_cast<pid_t>(helper), SIGKILL);
    QVERIFY(m_client->waitForFinished(kVpnWaitMs));
    QTRY_VERIFY_WITH_TIMEOUT(!processAlive(openvpn), kVpnWaitMs);

    // Its copy of the profile outlived it; the next helper removes it (as root: a folder others
    // may write to, the fallback, is never swept).
    QVERIFY(start("echo 'Initialization Sequence Completed'\nexit 0\n"));
    QVERIFY(finish());
    if (geteuid() == 0)
        QVERIFY(QDir(QStringLiteral("/run"))
                    .entryList({QStringLiteral("pelorin-ovpncli.%1.*").arg(helper)}, QDir::Dirs)
                    .isEmpty());
}

QTEST_GUILESS_MAIN(TestOvpncli)
#include "tst_ovpncli.moc"
