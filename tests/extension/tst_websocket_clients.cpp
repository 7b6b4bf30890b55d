#include "ServerRecorder.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>
#include <QtTest>

// The server against WebSocket clients we did not write: the Python websockets library and a
// real headless Chromium page.
class TestWebSocketClients : public QObject {
    Q_OBJECT

    ServerRecorder recorder;
    std::unique_ptr<CVWebSocketServer> server;

    static QString clientsDir()
    {
        return qEnvironmentVariable("PELORIN_SOURCE_DIR") + QStringLiteral("/tests/extension/clients");
    }

private slots:
    void init()
    {
        recorder = ServerRecorder();
        server = CVWebSocketServer::initWithPort(0, &recorder);
        QVERIFY(server);
        recorder.onMessage = [this](const QByteArray &data, const WebSocketConnection &) {
            server->send(QStringLiteral("echo:") + QString::fromUtf8(data));
        };
    }
    void cleanup()
    {
        server.reset();
        QVERIFY(!recorder.offMainThread);
    }

    // Runs a Python websockets client to its end; its output, or a null string when the
    // library is missing.
    QString runPython(const QString &script, const QStringList &arguments)
    {
        const QString python = QStringLiteral("/usr/bin/python3");
        QProcess check;
        check.start(python, {QStringLiteral("-c"), QStringLiteral("import websockets")});
        if (!check.waitForFinished(20000) || check.exitCode() != 0)
            return {};
        QProcess client;
        client.setProcessChannelMode(QProcess::MergedChannels);
        client.start(python, QStringList{clientsDir() + QLatin1Char('/') + script} + arguments);
        // The server's callbacks need the main loop: wait on it, not in waitForFinished().
        if (!QTest::qWaitFor([&] { return client.state() == QProcess::NotRunning; }, 90000))
            client.kill();
        client.waitForFinished();
        return QString::fromUtf8(client.readAll()) + QStringLiteral("\nexit %1").arg(client.exitCode());
    }

    void pythonWebsocketsClient()
    {
        const QString out = runPython(QStringLiteral("ws_client.py"), {QString::number(server->port())});
        if (out.isNull())
            QSKIP("python3-websockets is not installed (scripts/setup-deps.sh installs it)");
        QVERIFY2(out.endsWith(QLatin1String("exit 0")),
                 qPrintable(out + QStringLiteral("\nserver saw %1 messages, %2 errors: %3")
                                      .arg(recorder.messages.size())
                                      .arg(recorder.errors.size())
                                      .arg(recorder.errors.join(QLatin1Char(',')))));
        for (const char *step : {"OPEN", "ECHO_OK", "BIG_OK", "PING_OK", "CLOSED"})
            QVERIFY2(out.contains(QLatin1String(step)), qPrintable(out));
        QCOMPARE(recorder.messages.value(0), QByteArray("hello from python"));
        QCOMPARE(recorder.messages.value(1), QString(40000, QChar(0xe9)).toUtf8());
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(recorder.accepted, 1);
        QVERIFY(recorder.errors.isEmpty());
    }

    // One connection floods the server while the main thread answers every message: the
    // delegate must see the messages in the order they were sent.
    void floodKeepsOrderWhileTheMainThreadSends()
    {
        constexpr int kMessages = 20000;
        const QString out =
            runPython(QStringLiteral("ws_flood.py"), {QString::number(server->port()), QString::number(kMessages)});
        if (out.isNull())
            QSKIP("python3-websockets is not installed (scripts/setup-deps.sh installs it)");
        QVERIFY2(out.contains(QLatin1String("REPLIED")), qPrintable(out));
        QCOMPARE(recorder.messages.size(), kMessages);
        for (int i = 0; i < kMessages; ++i)
            QCOMPARE(recorder.messages[i], "n" + QByteArray::number(i));
    }

    void headlessChromiumPage()
    {
        const QString chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
        if (chromium.isEmpty())
            QSKIP("chromium is not installed (scripts/setup-deps.sh installs it)");
        QTemporaryDir profile;
        QProcess browser;
        browser.setProcessChannelMode(QProcess::MergedChannels);
        const QUrl page = QUrl::fromLocalFile(clientsDir() + QStringLiteral("/ws_page.html"));
        browser.start(chromium, {QStringLiteral("--headless"), QStringLiteral("--no-sandbox"),
                                 QStringLiteral("--disable-gpu"), QStringLiteral("--disable-background-networking"),
                                 QStringLiteral("--disable-component-update"), QStringLiteral("--disable-sync"),
                                 QStringLiteral("--no-first-run"), QStringLiteral("--user-data-dir=") + profile.path(),
                                 page.toString() + QStringLiteral("#") + QString::number(server->port())});
        QVERIFY(browser.waitForStarted(10000));
        QTRY_VERIFY_WITH_TIMEOUT(recorder.messages.size() >= 2, 60000);
        QCOMPARE(recorder.messages[0], QByteArray("hello from chromium"));
        QCOMPARE(recorder.messages[1], QByteArray("got:echo:hello from chromium"));
        // The page closes; whatever Chromium makes of the close reply, the connection ends.
        QTRY_COMPARE_WITH_TIMEOUT(recorder.disconnected, 1, 30000);
        QCOMPARE(recorder.accepted, 1);
        browser.kill();
        browser.waitForFinished(10000);
    }
};

QTEST_GUILESS_MAIN(TestWebSocketClients)
#include "tst_websocket_clients.moc"
