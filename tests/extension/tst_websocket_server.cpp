#include "extension/AsyncSocket.h"
#include "extension/CVWebSocketServer.h"
#include "extension/SocketLoop.h"
#include "foundation/MainQueue.h"
#include "support/LogCapture.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/resource.h>

namespace {
// A client frame as a browser sends it: masked with `key`, length in the shortest form.
QByteArray maskedFrame(unsigned char b0, const QByteArray &payload, const QByteArray &key = "\x37\xfa\x21\x3d")
{
    QByteArray out(1, static_cast<char>(b0));
    const auto n = static_cast<quint64>(payload.size());
    const int extended = n < 126 ? 0 : (n < 65536 ? 2 : 8);
    out.append(static_cast<char>(0x80 | (extended == 0 ? n : (extended == 2 ? 126 : 127))));
    for (int i = extended - 1; i >= 0; --i)
        out.append(static_cast<char>(n >> (8 * i)));
    out.append(key);
    for (qsizetype i = 0; i < payload.size(); ++i)
        out.append(static_cast<char>(payload[i] ^ key[i % 4]));
    return out;
}

// Records the server's delegate callbacks and checks they all arrive on the main thread.
class Recorder : public CVWebSocketServerDelegate {
public:
    int accepted = 0;
    int disconnected = 0;
    QList<QByteArray> messages;
    QStringList errors;
    QList<QByteArray> errorData;
    QList<QByteArray> messagesBeforeError;
    bool offMainThread = false;
    bool echo = false; // answers every message from the main thread

    void webSocketServerDidAcceptConnection(CVWebSocketServer *, const WebSocketConnection &) override
    {
        check(), ++accepted;
    }
    void webSocketServerDidReceiveData(CVWebSocketServer *server, const QByteArray &data,
                                       const WebSocketConnection &) override
    {
        check(), messages << data;
        if (echo)
            server->send("echo:" + QString::fromUtf8(data));
    }
    void webSocketServerClientDisconnected(CVWebSocketServer *, const WebSocketConnection &) override
    {
        check(), ++disconnected;
    }
    void webSocketServerCouldNotParseRawData(CVWebSocketServer *, const QByteArray &raw, const WebSocketConnection &,
                                             const NQError &error) override
    {
        check();
        messagesBeforeError = messages;
        const bool ours = error.domain() == QLatin1String(CVWebSocketServer::kErrorDomain) && error.code() == 1;
        errors << (ours ? error.localizedDescription() : "unexpected error " + error.debugDescription());
        errorData << raw;
    }

private:
    void check() { offMainThread = offMainThread || !MainQueue::isMainThread(); }
};

// A byte-exact WebSocket client: what goes out is exactly what the test wrote.
class RawClient {
public:
    QTcpSocket socket;
    QByteArray received;

    bool connectTo(quint16 port, const QHostAddress &host = QHostAddress::LocalHost)
    {
        socket.connectToHost(host, port);
        return socket.waitForConnected(5000);
    }
    void write(const QByteArray &bytes)
    {
        socket.write(bytes);
        socket.flush();
    }
    // Connects (unless already connected), sends the standard handshake and waits for the 101.
    bool handshake(quint16 port)
    {
        if (socket.state() != QAbstractSocket::ConnectedState && !connectTo(port))
            return false;
        write("GET /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        if (!waitFor([&] { return received.contains("\r\n\r\n"); }))
            return false;
        const bool ok = received.startsWith("HTTP/1.1 101 ");
        received.remove(0, received.indexOf("\r\n\r\n") + 4);
        return ok;
    }
    bool waitFor(const std::function<bool()> &condition, int ms = 5000)
    {
        return QTest::qWaitFor(
            [&] {
                received += socket.readAll();
                return condition();
            },
            ms);
    }
    bool waitForBytes(qsizetype n)
    {
        return waitFor([&] { return received.size() >= n; });
    }
    bool waitForClose(int ms = 5000)
    {
        return waitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, ms);
    }
};
} // namespace

// The server on loopback, against byte-exact clients and against clients we did not write:
// the Python websockets library and a headless Chromium page.
class TestWebSocketServer : public QObject {
    Q_OBJECT

    Recorder recorder;
    std::unique_ptr<CVWebSocketServer> server;

    const QString clients = qEnvironmentVariable("PELORIN_SOURCE_DIR") + "/tests/extension/clients/";

private slots:
    void init()
    {
        recorder = Recorder();
        server = CVWebSocketServer::initWithPort(0, &recorder);
        QVERIFY(server);
    }
    void cleanup()
    {
        server.reset();
        QVERIFY(!recorder.offMainThread);
    }

    // A refused start says why and leaves the socket not listening.
    void refusedListeningLeavesNothingListening()
    {
        QTcpServer holder;
        QVERIFY(holder.listen(QHostAddress::AnyIPv4, 0));
        const auto delegate = std::make_shared<AsyncSocketDelegate>(); // held weakly
        auto socket = std::make_shared<AsyncSocket>(delegate, &SocketLoop::shared());
        NQErrorOpt error;
        QVERIFY(!socket->acceptOnPort(holder.serverPort(), &error));
        QCOMPARE(error->localizedDescription(), "Error in bind() function");
        QCOMPARE(socket->localPort(), 0);
    }

    // The exact answer to a good request; a bad one, or one split across writes, is refused
    // with nothing written and the connection closed. Then every client past its handshake
    // gets each frame; one still in its handshake gets nothing that would break it, and one
    // that has left is skipped.
    void handshakesThenSends()
    {
        RawClient good, bad, split, b, pending;
        QVERIFY(good.connectTo(server->port(), QHostAddress::LocalHostIPv6)); // one port, both families
        good.write("GET /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        const QByteArray expected = "HTTP/1.1 101 Web Socket Protocol Handshake\r\nUpgrade: websocket\r\nConnection: "
                                    "Upgrade\r\nSec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";
        QVERIFY(good.waitForBytes(expected.size()));
        QCOMPARE(good.received, expected);
        good.received.clear();

        const QByteArray request = "get /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: a\r\n\r\n";
        QVERIFY(bad.connectTo(server->port()));
        bad.write(request);
        QVERIFY(bad.waitForClose());
        QTRY_COMPARE(recorder.errors, QStringList{"Invalid handshake from client"});
        QCOMPARE(recorder.errorData, QList<QByteArray>{request});
        QTRY_COMPARE(recorder.disconnected, 1);

        QVERIFY(split.connectTo(server->port()));
        split.write("GET /Quellon/ HTTP/1.1\r\nHost: x\r\n");
        QTRY_COMPARE(recorder.errors.size(), 2);
        split.write("Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        QVERIFY(split.waitForClose());
        QVERIFY(split.received.isEmpty());

        QVERIFY(b.handshake(server->port()));
        QVERIFY(pending.connectTo(server->port()));
        QTRY_COMPARE(server->clientCount(), 3);
        server->send("one");
        QVERIFY(good.waitForBytes(5) && b.waitForBytes(5));
        QCOMPARE(b.received, QByteArray("\x81\x03one"));
        QVERIFY(pending.handshake(server->port())); // its answer comes first, no frame before it
        QTRY_COMPARE(recorder.accepted, 3);
        b.socket.disconnectFromHost();
        QTRY_COMPARE(server->clientCount(), 2);
        server->send("two");
        QVERIFY(good.waitForBytes(10) && pending.waitForBytes(5));
        QCOMPARE(good.received, QByteArray("\x81\x03one\x81\x03two"));
        QCOMPARE(pending.received, QByteArray("\x81\x03two"));
    }

    // Text reaches the delegate as bytes (invalid UTF-8 too); ping gets a pong, close its key
    // bytes back while the connection stays open for the client to close. Text without FIN is
    // taken as a whole message, and an unmasked frame's first four payload bytes as its key.
    void framesFromAClient()
    {
        RawClient c;
        QVERIFY(c.handshake(server->port()));
        const QByteArray big(70000, 'q');
        QByteArray unmasked = "xy1234";
        for (int i = 0; i < unmasked.size(); ++i)
            unmasked[i] = static_cast<char>(unmasked[i] ^ "ABCD"[i % 4]);
        c.write(maskedFrame(0x81, "one") + maskedFrame(0x89, "abc") + maskedFrame(0x81, big) +
                maskedFrame(0x81, "\xff\xfe\xc3") + maskedFrame(0x88, "\x03\xe8", "\x5a\x6b\x7c\x8d") +
                maskedFrame(0x01, "part") + QByteArray("\x81\x06", 2) + "ABCDxy1234" + maskedFrame(0x81, "still here"));
        QVERIFY(c.waitForBytes(9));
        QCOMPARE(c.received, QByteArray("\x8a\x03"
                                        "abc\x88\x02\x6b\x5a"));
        // What a client writes just before it closes is still delivered, then the close once.
        LogCapture log;
        c.write(maskedFrame(0x81, "last"));
        c.socket.disconnectFromHost();
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(recorder.messages,
                 (QList<QByteArray>{"one", big, "\xff\xfe\xc3", "part", unmasked, "still here", "last"}));
        QVERIFY(log.osTexts().value(0).endsWith(" closed: Connection closed by the peer"));
    }

    // Continuation, pong, reserved and binary opcodes are refused: the delegate hears of it after
    // all the connection's earlier messages, with the bytes of the read that failed, and then
    // the connection closes.
    void unsupportedOpcodesAreRefusedAfterEarlierMessages()
    {
        const QList<unsigned char> opcodes{0x80, 0x00, 0x8A, 0x83, 0x8F, 0x82};
        LogCapture log;
        for (unsigned char b0 : opcodes) {
            RawClient c;
            QVERIFY(c.handshake(server->port()));
            c.write(maskedFrame(0x81, "one") + maskedFrame(b0, "xx") + maskedFrame(0x81, "never"));
            QVERIFY(c.waitForClose());
        }
        QTRY_COMPARE(recorder.disconnected, opcodes.size());
        QCOMPARE(recorder.messagesBeforeError, QList<QByteArray>(opcodes.size(), "one"));
        QCOMPARE(recorder.errors, QStringList(opcodes.size(), "Cannot handle this websocket frame format!"));
        QCOMPARE(recorder.errorData.last(), maskedFrame(0x82, "xx").left(2));
        QCOMPARE(recorder.messages, recorder.messagesBeforeError); // nothing read after a failure
        QVERIFY(log.osTexts().value(0).endsWith(" closed: protocol error: Cannot handle this websocket frame format!"));
    }

    // What one read may hold is capped at the limit (masking key and payload), and a huge
    // declared length costs nothing until sent, nor wraps around into a small read near 2^64;
    // none of them troubles another connection.
    void bufferLimitAtNAndNPlusOneAndHugeDeclarations()
    {
        const auto limit = CVWebSocketServer::kMaxBufferedBytesPerConnection;
        LogCapture log;
        RawClient a, b, huge, wraps;
        QVERIFY(a.handshake(server->port()));
        QVERIFY(b.handshake(server->port()));
        QVERIFY(huge.handshake(server->port()));
        QVERIFY(wraps.handshake(server->port()));
        // 2 GB declared, a handful of bytes sent, then the client vanishes mid-frame.
        huge.write(QByteArray("\x81\xff\0\0\0\0\x80\0\0\0", 10) + "mask" + QByteArray(1000, 'p'));
        wraps.write(QByteArray("\x81\xff", 2) + QByteArray(8, '\xff') + "mask" + QByteArray(1000, 'p'));
        a.write(maskedFrame(0x81, QByteArray(static_cast<int>(limit - 4), 'n')));
        b.write(maskedFrame(0x81, QByteArray(static_cast<int>(limit - 3), 'o')));
        QVERIFY(b.waitForClose(30000));
        QTRY_VERIFY_WITH_TIMEOUT(recorder.messages.size() == 1, 30000);
        QCOMPARE(recorder.messages[0].size(), qsizetype(limit - 4));
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(a.socket.state(), QAbstractSocket::ConnectedState);
        QCOMPARE(log.osTexts("CVWebSocketServer").size(), 1);
        QVERIFY(log.osTexts().value(0).endsWith(
            QStringLiteral(" closed: Read of %1 bytes exceeds the %2-byte buffer limit").arg(limit + 1).arg(limit)));
        huge.socket.abort();
        wraps.socket.abort();
        QTRY_COMPARE(recorder.disconnected, 3);
        QCOMPARE(recorder.messages.size(), 1);
        QVERIFY(recorder.errors.isEmpty());
    }

    void thousandIdleConnectionsDoNotStopService()
    {
        rlimit lim{};
        getrlimit(RLIMIT_NOFILE, &lim);
        if (lim.rlim_cur < 2600 && lim.rlim_max >= 2600) {
            lim.rlim_cur = 2600;
            setrlimit(RLIMIT_NOFILE, &lim);
        }
        std::vector<std::unique_ptr<QTcpSocket>> idle;
        for (int i = 0; i < 1000; ++i) {
            idle.push_back(std::make_unique<QTcpSocket>());
            idle.back()->connectToHost(QHostAddress::LocalHost, server->port());
        }
        for (auto &s : idle)
            QVERIFY(s->state() == QAbstractSocket::ConnectedState || s->waitForConnected(5000));
        QTRY_COMPARE_WITH_TIMEOUT(server->clientCount(), 1000, 20000);
        RawClient live;
        QVERIFY(live.handshake(server->port()));
        live.write(maskedFrame(0x81, "alive"));
        QTRY_COMPARE(recorder.messages, QList<QByteArray>{"alive"});
        idle.clear();
        QTRY_COMPARE_WITH_TIMEOUT(server->clientCount(), 1, 20000);
    }

    void pythonWebsocketsClient()
    {
        if (QProcess::execute("/usr/bin/python3", {"-c", "import websockets"}) != 0)
            QSKIP("python3-websockets is not installed (scripts/setup-deps.sh installs it)");
        recorder.echo = true;
        constexpr int kFlood = 20000;
        QProcess client; // run to its end on the main loop, which the server's callbacks need
        client.setProcessChannelMode(QProcess::MergedChannels);
        client.start("/usr/bin/python3",
                     {clients + "ws_client.py", QString::number(server->port()), QString::number(kFlood)});
        QVERIFY(QTest::qWaitFor([&] { return client.state() == QProcess::NotRunning; }, 90000));
        const QString out = client.readAll() + QStringLiteral("\nexit %1").arg(client.exitCode());
        QVERIFY2(out.endsWith("DONE\n\nexit 0"), qPrintable(out + "\nserver: " + recorder.errors.join(',')));
        QCOMPARE(recorder.messages.size(), 2 + kFlood);
        for (int i = 0; i < kFlood; ++i)
            QCOMPARE(recorder.messages[2 + i], "n" + QByteArray::number(i));
        QTRY_COMPARE(recorder.disconnected, 1);
        QVERIFY(recorder.errors.isEmpty());
    }

    void headlessChromiumPage()
    {
        const QString chromium = QStandardPaths::findExecutable("chromium");
        if (chromium.isEmpty())
            QSKIP("chromium is not installed (scripts/setup-deps.sh installs it)");
        recorder.echo = true;
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
        browser.kill();
        browser.waitForFinished(10000);
    }
};

QTEST_GUILESS_MAIN(TestWebSocketServer)
#include "tst_websocket_server.moc"
