#include "shell/ServiceLauncher.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {
QString launcherBinary()
{
    return qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/vpnctrl_launcher");
}

void writeFile(const QString &path, const QByteArray &content, QFile::Permissions permissions = {})
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();
    if (permissions)
        QVERIFY(file.setPermissions(permissions));
}

constexpr auto kExecutable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
} // namespace

class TestServiceLauncher : public QObject {
    Q_OBJECT

private slots:
    void missingLauncherIsOneAttemptPerSession()
    {
        QTemporaryDir dir;
        LogCapture log;
        ServiceLauncher service(dir.filePath(QStringLiteral("vpnctrl_launcher")), dir.path());
        service.vpnRunService();
        QVERIFY(service.hasServiceTask());
        const QStringList texts = log.osTexts(QStringLiteral("Delegate"));
        QCOMPARE(texts.first(), QStringLiteral("|VPN| Run service. BEGIN"));
        QCOMPARE(texts.last(), QStringLiteral("|VPN| Run service. DONE with error: 'Launcher running failed with "
                                              "error: 'No such file or directory'.'."));
        QCOMPARE(log.osRecords().last().level, OsLog::Level::Fault);

        log.clear();
        service.vpnRunService();
        QCOMPARE(log.osTexts(QStringLiteral("Delegate")),
                 (QStringList{QStringLiteral("|VPN| Run service. BEGIN"),
                              QStringLiteral("|VPN| Run service. DONE with error: 'Already running.'.")}));
    }

    void emptyLocationAndNonExecutableHelperAreLoggedFaults()
    {
        QTemporaryDir dir;
        {
            LogCapture log;
            ServiceLauncher service(QStringLiteral(""), dir.path());
            service.vpnRunService();
            QCOMPARE(log.osTexts().last(),
                     QStringLiteral("|VPN| Run service. DONE with error: 'Launcher not found at url: '(null)'.'."));
        }
        const QString plain = dir.filePath(QStringLiteral("vpnctrl_launcher"));
        writeFile(plain, "#!/bin/sh\nexit 0\n", QFile::ReadOwner | QFile::WriteOwner);
        LogCapture log;
        ServiceLauncher service(plain, dir.path());
        service.vpnRunService();
        const QStringList texts = log.osTexts();
        QVERIFY(texts.contains(QStringLiteral("|VPN| Run service. Set Launcher URL: '%1'.").arg(plain)));
        QVERIFY2(texts.last().startsWith(QStringLiteral("|VPN| Run service. DONE with error: '")),
                 qPrintable(texts.last()));
        QVERIFY(texts.last().endsWith(QStringLiteral("'.'.")));
        QCOMPARE(log.osRecords().last().level, OsLog::Level::Fault);
        // Closing still tries, logs the failed write, and cleans the marker.
        writeFile(dir.filePath(QStringLiteral("openvpn.last_pid")), "123");
        log.clear();
        service.vpnCloseService();
        QVERIFY(log.osTexts().contains(QStringLiteral("|VPN| Close service. BEGIN")));
        QVERIFY(std::ranges::any_of(log.osTexts(), [](const QString &t) {
            return t.startsWith(QStringLiteral("|VPN| Close service. DONE with fatal error: '"));
        }));
        QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("openvpn.last_pid"))));
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Removed previous openvpn.last_pid file")});
    }

    void closeWithoutStartIsAFatalErrorAndKeepsTheMarker()
    {
        QTemporaryDir dir;
        writeFile(dir.filePath(QStringLiteral("openvpn.last_pid")), "123");
        LogCapture log;
        ServiceLauncher service(dir.filePath(QStringLiteral("x")), dir.path());
        service.vpnCloseService();
        QCOMPARE(log.osTexts(), (QStringList{QStringLiteral("|VPN| Close service. BEGIN"),
                                             QStringLiteral("|VPN| Close service. DONE with fatal error: 'Missing "
                                                            "Task or input Pipe.'."),
                                             QStringLiteral("|VPN| Close service. DONE.")}));
        QVERIFY(QFile::exists(dir.filePath(QStringLiteral("openvpn.last_pid"))));
        QVERIFY(!service.closingService());
    }

    void closeTwiceWritesQuitTwice()
    {
        QTemporaryDir dir;
        const QString script = dir.filePath(QStringLiteral("recorder"));
        const QString out = dir.filePath(QStringLiteral("received"));
        writeFile(script,
                  QStringLiteral("#!/bin/sh\nwhile IFS= read -r line; do printf '%s\\n' \"$line\" >> '%1'; done\n")
                      .arg(out)
                      .toUtf8(),
                  kExecutable);
        LogCapture log;
        ServiceLauncher service(script, dir.path());
        service.vpnRunService();
        QCOMPARE(log.osTexts().last(), QStringLiteral("|VPN| Run service. DONE."));
        service.vpnCloseService();
        service.vpnCloseService();
        QProcess *task = service.serviceTask();
        task->closeWriteChannel();
        QVERIFY(task->waitForFinished(10000));
        QFile received(out);
        QVERIFY(received.open(QIODevice::ReadOnly));
        QCOMPARE(received.readAll(), QByteArray("quit\nquit\n"));
        // No marker: nothing is removed and nothing is said about it.
        QVERIFY(!log.lines().contains(QStringLiteral("Removed previous openvpn.last_pid file")));
    }

    void realHelperEndsOnQuitAndEndsLeftoverClient()
    {
        QTemporaryDir dir;
        const QString dataDir = dir.filePath(QStringLiteral("com.pelorin.vpn.mac"));
        QVERIFY(QDir().mkpath(dataDir));
        // A leftover tunnel client: a sleeper under our client's process name.
        const QString fakeClient = dir.filePath(QStringLiteral("ovpncli"));
        QVERIFY(QFile::link(QStringLiteral("/bin/sleep"), fakeClient));
        QProcess client;
        client.start(fakeClient, {QStringLiteral("60")});
        QVERIFY(client.waitForStarted());
        writeFile(dataDir + QStringLiteral("/openvpn.last_pid"), QByteArray::number(client.processId()) + "\n");

        QProcess helper;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PELORIN_DATA_HOME"), dir.path());
        helper.setProcessEnvironment(env);
        helper.start(launcherBinary(), {});
        QVERIFY2(helper.waitForStarted(), qPrintable(launcherBinary()));
        helper.write("status\n");
        QVERIFY(!helper.waitForFinished(300)); // any other line is not an end
        helper.write("quit\n");
        QVERIFY(helper.waitForFinished(10000));
        QCOMPARE(helper.exitCode(), 0);
        QVERIFY(client.waitForFinished(10000));
        QCOMPARE(client.exitStatus(), QProcess::CrashExit); // ended by a signal
        QVERIFY(!QFile::exists(dataDir + QStringLiteral("/openvpn.last_pid")));
    }

    void realHelperLeavesStrangersAloneAndDropsStaleMarkers()
    {
        QTemporaryDir dir;
        const QString dataDir = dir.filePath(QStringLiteral("com.pelorin.vpn.mac"));
        QVERIFY(QDir().mkpath(dataDir));
        QProcess stranger;
        stranger.start(QStringLiteral("/bin/sleep"), {QStringLiteral("60")});
        QVERIFY(stranger.waitForStarted());
        const QString marker = dataDir + QStringLiteral("/openvpn.last_pid");
        writeFile(marker, QByteArray::number(stranger.processId()));

        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PELORIN_DATA_HOME"), dir.path());
        QProcess helper;
        helper.setProcessEnvironment(env);
        helper.start(launcherBinary(), {});
        QVERIFY(helper.waitForStarted());
        helper.write("quit\n");
        QVERIFY(helper.waitForFinished(10000));
        QVERIFY(!stranger.waitForFinished(300)); // not one of ours: still running
        QVERIFY(!QFile::exists(marker));
        stranger.kill();
        stranger.waitForFinished();

        // A marker naming a process that is gone is removed at start; the end of input ends it.
        writeFile(marker, "999999999");
        QProcess second;
        second.setProcessEnvironment(env);
        second.start(launcherBinary(), {});
        QVERIFY(second.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(marker), 10000);
        second.closeWriteChannel();
        QVERIFY(second.waitForFinished(10000));
    }
};

QTEST_GUILESS_MAIN(TestServiceLauncher)
#include "tst_service_launcher.moc"
