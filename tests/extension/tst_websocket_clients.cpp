#include "ServerRecorder.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>
#include <QtTest>

// The server against WebSocket clients we did not write: the Python websockets library and a
// real headless Chromium page. Every message is echoed back from the main thread.
class TestWebSocketClients : public QObject {
    Q_OBJECT

    ServerRecorder recorder;
    std::unique_ptr<CVWebSocketServer> server;
    const QString clients = qEnvironmentVariable("PELORIN_SOURCE_DIR") + "/tests/extension/clients/";

    // Runs a client to its end on the main loop (the server's callbacks need it); its output.
    QString run(const QString &program, const QStringList &arguments)
    {
        QProcess client;
        client.setProcessChannelMode(QProcess::MergedChannels);
        client.start(program, arguments);
        if (!QTest::qWaitFor([&] { return client.state() == QProcess::NotRunning; }, 90000))
            client.kill();
        client.waitForFinished();
        return client.readAll() + QStringLiteral("\nexit %1").arg(client.exitCode());
    }

private slots:
    void init()
    {
        recorder = ServerRecorder();
        server = CVWebSocketServer::initWithPort(0, &recorder);
        QVERIFY(server);
        recorder.onMessage = [this](const QByteArray &data) { server->send("echo:" + QString::fromUtf8(data)); };
    }
    void cleanup()
    {
        server.reset();
        QVERIFY(!recorder.offMainThread);
    }

    void pythonWebsocketsClient()
    {
        if (QProcess::execute("/usr/bin/python3", {"-c", "import websockets"}) != 0)
            QSKIP("python3-websockets is not installed (scripts/setup-deps.sh installs it)");
        constexpr int kFlood = 20000;
        const QString out = run("/usr/bin/python3",
                                {clients + "ws_client.py", QString::number(server->port()), QString::number(kFlood)});
        QVERIFY2(out.endsWith("DONE\n\nexit 0"), qPrintable(out + "\nserver: " + recorder.errors.join(',')));
        QCOMPARE(recorder.messages.size(), 2 + kFlood);
        QCOMPARE(recorder.messages[1], QString(40000, QChar(0xe9)).toUtf8());
        for (int i = 0; i < kFlood; ++i)
            QCOMPARE(recorder.messages[2 + i], "n" + QByteArray::number(i));
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(recorder.accepted, 1);
        QVERIFY(recorder.errors.isEmpty());
    }

    void headlessChromiumPage()
    {
        const QString chromium = QStandardPaths::findExecutable("chromium");
        if (chromium.isEmpty())
            QSKIP("chromium is not installed (scripts/setup-deps.sh installs it)");
        QTemporaryDir profile;
        QProcess browser;
        const QUrl page = QUrl::fromLocalFile(clients + "ws_page.html");
        browser.start(chromium,
                      {"--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
                       "--disable-component-update", "--disable-sync", "--no-first-run",
                       "--user-data-dir=" + profile.path(), page.toString() + "#" + QString::number(server->port())});
        QVERIFY(browser.waitForStarted(10000));
        QTRY_VERIFY_WITH_TIMEOUT(recorder.messages.size() >= 2, 60000);
        QCOMPARE(recorder.messages.mid(0, 2),
                 (QList<QByteArray>{"hello from chromium", "got:echo:hello from chromium"}));
        // The page closes; whatever Chromium makes of the close reply, the connection ends.
        QTRY_COMPARE_WITH_TIMEOUT(recorder.disconnected, 1, 30000);
        QCOMPARE(recorder.accepted, 1);
        browser.kill();
        browser.waitForFinished(10000);
    }
};

QTEST_GUILESS_MAIN(TestWebSocketClients)
#include "tst_websocket_clients.moc"
