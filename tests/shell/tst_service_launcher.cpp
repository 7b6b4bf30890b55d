// The service launcher against missing, broken and recording helpers, and the real helper.
#include "ShellFakes.h"
#include "shell/ServiceLauncher.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QProcess>
#include <QTest>

namespace {
constexpr auto kExecutable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;

// The real helper, with its data folder (and the marker file's) under `dir`.
std::unique_ptr<QProcess> startHelper(const QTemporaryDir &dir)
{
    auto helper = std::make_unique<QProcess>();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("PELORIN_DATA_HOME"), dir.path());
    helper->setProcessEnvironment(env);
    helper->start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/vpnctrl_launcher"), {});
    return helper->waitForStarted() ? std::move(helper) : nullptr;
}

QString markerIn(const QTemporaryDir &dir)
{
    QDir().mkpath(dir.filePath(QStringLiteral("com.pelorin.vpn.mac")));
    return dir.filePath(QStringLiteral("com.pelorin.vpn.mac/openvpn.last_pid"));
}
} // namespace

class TestServiceLauncher : public QObject {
    Q_OBJECT

private slots:
    // A launcher that cannot run is a logged fault, tried once per session; closing still
    // tries, logs the failed write and cleans the marker.
    void launcherThatCannotRun_data()
    {
        QTest::addColumn<QString>("launcher");
        QTest::addColumn<QString>("said"); // the start of the last line
        QTest::newRow("empty location")
            << ""
            << "|VPN| Run service. DONE with error: 'Launcher not found at url: '(null)'.'.";
        QTest::newRow("missing") << "missing"
                                 << "|VPN| Run service. DONE with error: 'Launcher running failed with error: 'No "
                                    "such file or directory'.'.";
        QTest::newRow("not executable") << "plain"
                                        << "|VPN| Run service. DONE with error: '";
    }
    void launcherThatCannotRun()
    {
        QFETCH(QString, launcher);
        QFETCH(QString, said);
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath(QStringLiteral("plain")), "#!/bin/sh\nexit 0\n"));
        LogCapture log;
        ServiceLauncher service(launcher.isEmpty() ? launcher : dir.filePath(launcher), dir.path());
        service.vpnRunService();
        QVERIFY(service.hasServiceTask());
        QVERIFY2(log.osTexts().last().startsWith(said), qPrintable(log.osTexts().last()));
        QCOMPARE(log.osRecords().last().level, OsLog::Level::Fault);
        log.clear();
        service.vpnRunService();
        QCOMPARE(log.osTexts().last(), QStringLiteral("|VPN| Run service. DONE with error: 'Already running.'."));

        QVERIFY(writeFile(dir.filePath(QStringLiteral("openvpn.last_pid")), "123"));
        log.clear();
        service.vpnCloseService();
        QVERIFY(std::ranges::any_of(log.osTexts(), [](const QString &t) {
            return t.startsWith(QStringLiteral("|VPN| Close service. DONE with fatal error: '"));
        }));
        QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("openvpn.last_pid"))));
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Removed previous openvpn.last_pid file")});
    }

    // The helper ends on "quit" or when its input closes, which the launcher's end does.
    void closeTwiceWritesQuitTwiceAndTheEndClosesTheInput()
    {
        QTemporaryDir dir;
        const QString script = dir.filePath(QStringLiteral("recorder"));
        const QString out = dir.filePath(QStringLiteral("received"));
        QVERIFY(writeFile(
            script,
            QStringLiteral(
                "#!/bin/sh\nwhile IFS= read -r line; do printf '%s\\n' \"$line\" >> '%1'; done\necho eof >> '%1'\n")
                .arg(out)
                .toUtf8(),
            kExecutable));
        LogCapture log;
        {
            ServiceLauncher service(script, dir.path());
            service.vpnRunService();
            QCOMPARE(log.osTexts().last(), QStringLiteral("|VPN| Run service. DONE."));
            service.vpnCloseService();
            service.vpnCloseService();
        }
        QCOMPARE(readAll(out), QByteArray("quit\nquit\neof\n"));
        // No marker: nothing is removed and nothing is said about it.
        QVERIFY(!log.lines().contains(QStringLiteral("Removed previous openvpn.last_pid file")));
    }

    void realHelperEndsOnQuitAndEndsLeftoverClient()
    {
        QTemporaryDir dir;
        // A leftover tunnel client: a sleeper under our client's process name.
        const QString fakeClient = dir.filePath(QStringLiteral("ovpncli"));
        QVERIFY(QFile::link(QStringLiteral("/bin/sleep"), fakeClient));
        QProcess client;
        client.start(fakeClient, {QStringLiteral("60")});
        QVERIFY(client.waitForStarted());
        const QString marker = markerIn(dir);
        QVERIFY(writeFile(marker, QByteArray::number(client.processId()) + "\n"));

        const auto helper = startHelper(dir);
        QVERIFY(helper);
        helper->write("status\n");
        QVERIFY(!helper->waitForFinished(300)); // any other line is not an end
        helper->write("quit\n");
        QVERIFY(helper->waitForFinished(10000));
        QCOMPARE(helper->exitCode(), 0);
        QVERIFY(client.waitForFinished(10000));
        QCOMPARE(client.exitStatus(), QProcess::CrashExit); // ended by a signal
        QVERIFY(!QFile::exists(marker));
    }

    void realHelperLeavesStrangersAloneAndDropsStaleMarkers()
    {
        QTemporaryDir dir;
        QProcess stranger;
        stranger.start(QStringLiteral("/bin/sleep"), {QStringLiteral("60")});
        QVERIFY(stranger.waitForStarted());
        const QString marker = markerIn(dir);
        QVERIFY(writeFile(marker, QByteArray::number(stranger.processId())));
        const auto helper = startHelper(dir);
        QVERIFY(helper);
        helper->write("quit\n");
        QVERIFY(helper->waitForFinished(10000));
        QVERIFY(!stranger.waitForFinished(300)); // not one of ours: still running
        QVERIFY(!QFile::exists(marker));
        stranger.kill();
        stranger.waitForFinished();

        // A marker naming a process that is gone is removed at start; the end of input ends it.
        QVERIFY(writeFile(marker, "999999999"));
        const auto second = startHelper(dir);
        QVERIFY(second);
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(marker), 10000);
        second->closeWriteChannel();
        QVERIFY(second->waitForFinished(10000));
    }
};

QTEST_GUILESS_MAIN(TestServiceLauncher)
#include "tst_service_launcher.moc"
