#include "RawClient.h"
#include "ServerRecorder.h"

#include "extension/AsyncSocket.h"
#include "extension/SocketLoop.h"
#include "support/LogCapture.h"

#include <QTcpServer>
#include <QtTest>

#include <sys/resource.h>

class TestWebSocketServer : public QObject {
    Q_OBJECT

    ServerRecorder recorder;
    std::unique_ptr<CVWebSocketServer> server;

private slots:
    void init()
    {
        recorder = ServerRecorder();
        server = CVWebSocketServer::initWithPort(0, &recorder);
        QVERIFY(server);
    }
    void cleanup()
    {
        server.reset();
        QVERIFY(!recorder.offMainThread);
    }

    void listeningFailureIsLoggedAndGivesNoServer()
    {
        QTcpServer holder;
        QVERIFY(holder.listen(QHostAddress::AnyIPv4, 0));
        LogCapture log;
        NQErrorOpt error;
        QVERIFY(!CVWebSocketServer::initWithPort(holder.serverPort(), &recorder, &error));
        QCOMPARE(error->localizedDescription(), "Error in bind() function");
        QCOMPARE(log.lines().size(), 1);
        QVERIFY(log.lines()[0].startsWith("CVWebSockerServer failed to initialize: "));
        QVERIFY(log.lines()[0].contains("Error in bind() function"));
        // The refused start left nothing listening: the same socket listens once the port is free,
        // and its end is reported once.
        struct Closes : AsyncSocketDelegate {
            std::atomic<int> count{0};
            void socketDidDisconnect(const AsyncSocketPtr &, const NQErrorOpt &) override { ++count; }
        };
        const auto delegate = std::make_shared<Closes>(); // held weakly
        auto socket = std::make_shared<AsyncSocket>(delegate, &SocketLoop::shared());
        QVERIFY(!socket->acceptOnPort(holder.serverPort(), &error));
        QCOMPARE(error->localizedDescription(), "Error in bind() function");
        QCOMPARE(socket->localPort(), 0);
        const quint16 port = holder.serverPort();
        holder.close();
        QVERIFY(socket->acceptOnPort(port, nullptr));
        socket->disconnect();
        socket->disconnect();
        SocketLoop::shared().call([] {}); // behind both
        QCOMPARE(delegate->count.load(), 1);
    }

    // The exact answer to a good request; a bad one, or one split across writes, is refused
    // with nothing written and the connection closed.
    void handshakes()
    {
        RawClient good, bad, split;
        QVERIFY(good.connectTo(server->port(), QHostAddress::LocalHostIPv6)); // one port, both families
        good.write("GET /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        const QByteArray expected = "HTTP/1.1 101 Web Socket Protocol Handshake\r\nUpgrade: websocket\r\nConnection: "
                                    "Upgrade\r\nSec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";
        QVERIFY(good.waitForBytes(expected.size()));
        QCOMPARE(good.received, expected);
        QTRY_COMPARE(recorder.accepted, 1);

        const QByteArray request = "get /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: a\r\n\r\n";
        QVERIFY(bad.connectTo(server->port()));
        bad.write(request);
        QVERIFY(bad.waitForClose());
        QVERIFY(bad.received.isEmpty());
        QTRY_COMPARE(recorder.errors, QStringList{"Invalid handshake from client"});
        QCOMPARE(recorder.errorData, QList<QByteArray>{request});
        QTRY_COMPARE(recorder.disconnected, 1);

        QVERIFY(split.connectTo(server->port()));
        split.write("GET /Quellon/ HTTP/1.1\r\nHost: x\r\n");
        QTRY_COMPARE(recorder.errors.size(), 2);
        split.write("Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        QVERIFY(split.waitForClose());
        QVERIFY(split.received.isEmpty());
        QCOMPARE(recorder.accepted, 1);
        QCOMPARE(server->clientCount(), 1);
    }

    // Text reaches the delegate as bytes (invalid UTF-8 too); ping gets a pong, close its key
    // bytes back while the connection stays open for the client to close.
    void framesFromAClient()
    {
        RawClient c;
        QVERIFY(c.handshake(server->port()));
        const QByteArray big(70000, 'q');
        c.write(maskedFrame(0x81, "one") + maskedFrame(0x89, "abc") + maskedFrame(0x81, big) +
                maskedFrame(0x81, "\xff\xfe\xc3") + maskedFrame(0x88, "\x03\xe8", "\x5a\x6b\x7c\x8d") +
                maskedFrame(0x81, "still here"));
        QVERIFY(c.waitForBytes(9));
        QCOMPARE(c.received, QByteArray("\x8a\x03"
                                        "abc\x88\x02\x6b\x5a"));
        // What a client writes just before it closes is still delivered, then the close once.
        LogCapture log;
        c.write(maskedFrame(0x81, "last"));
        c.socket.disconnectFromHost();
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(recorder.messages, (QList<QByteArray>{"one", big, "\xff\xfe\xc3", "still here", "last"}));
        QCOMPARE(server->clientCount(), 0);
        QCOMPARE(log.osTexts().size(), 1);
        QVERIFY(log.osTexts().value(0).endsWith(" closed: Connection closed by the peer"));
    }

    // Every client past its handshake gets each frame, in the shortest length form; a client
    // still in its handshake gets nothing that would break it.
    void sendReachesEveryClientPastItsHandshake()
    {
        RawClient a, b, pending;
        QVERIFY(a.handshake(server->port()));
        QVERIFY(b.handshake(server->port()));
        QVERIFY(pending.connectTo(server->port()));
        QTRY_COMPARE(server->clientCount(), 3);
        for (const auto &[length, header] : QList<std::pair<int, int>>{{6, 2}, {126, 4}, {65535, 4}, {65536, 10}}) {
            server->send(QString(length, QLatin1Char('s')));
            for (RawClient *client : {&a, &b}) {
                QVERIFY(client->waitForBytes(length + header));
                const QByteArray f = client->take(length + header);
                QCOMPARE(static_cast<unsigned char>(f[0]), 0x81);
                QCOMPARE(f[1] & 0xff, length < 126 ? length : (length < 65536 ? 126 : 127));
                QCOMPARE(f.mid(header), QByteArray(length, 's'));
            }
        }
        QVERIFY(pending.handshake(server->port()));
        QTRY_COMPARE(recorder.accepted, 3);
        b.socket.disconnectFromHost();
        QTRY_COMPARE(server->clientCount(), 2);
        server->send("now");
        for (RawClient *client : {&a, &pending}) {
            QVERIFY(client->waitForBytes(5));
            QCOMPARE(client->received, QByteArray("\x81\x03now"));
        }
    }

    // Long bursts on two connections at once: per-connection order holds across every batch,
    // and a connection's failure reaches the delegate only after all its earlier messages.
    void burstsKeepOrderAndAFailureComesAfterItsMessages()
    {
        constexpr int kFrames = 1500;
        RawClient a, b;
        QVERIFY(a.handshake(server->port()));
        QVERIFY(b.handshake(server->port()));
        QByteArray burstA, burstB;
        QList<QByteArray> expectA, expectB;
        for (int i = 0; i < kFrames; ++i) {
            expectA << "a" + QByteArray::number(i);
            expectB << "b" + QByteArray::number(i);
            burstA += maskedFrame(0x81, expectA.last());
            burstB += maskedFrame(0x81, expectB.last());
        }
        LogCapture log;
        a.write(burstA);
        b.write(burstB + maskedFrame(0x82, "xx"));
        QTRY_COMPARE(recorder.messages.size(), 2 * kFrames);
        QTRY_COMPARE(recorder.disconnected, 1);
        QVERIFY(b.waitForClose());
        QList<QByteArray> gotA, gotB;
        for (const QByteArray &m : recorder.messages)
            (m.startsWith('a') ? gotA : gotB) << m;
        QCOMPARE(gotA, expectA);
        QCOMPARE(gotB, expectB);
        QCOMPARE(recorder.errors, QStringList{"Cannot handle this websocket frame format!"});
        QCOMPARE(recorder.errorData, QList<QByteArray>{maskedFrame(0x82, "xx").left(2)});
        QCOMPARE(recorder.failedConnectionMessages, kFrames);
        QVERIFY(log.osTexts().value(0).endsWith(" closed: protocol error: Cannot handle this websocket frame format!"));
    }

    void hugeDeclaredFrameCostsNothingUntilSent()
    {
        RawClient c, other;
        QVERIFY(c.handshake(server->port()));
        // 2 GB declared, a handful of bytes sent, then the client vanishes mid-frame.
        c.write(QByteArray("\x81\xff\0\0\0\0\x80\0\0\0", 10) + "mask" + QByteArray(1000, 'p'));
        QVERIFY(other.handshake(server->port()));
        other.write(maskedFrame(0x81, "unaffected"));
        QTRY_COMPARE(recorder.messages, QList<QByteArray>{"unaffected"});
        c.socket.abort();
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(server->clientCount(), 1);
        QVERIFY(recorder.errors.isEmpty());
    }

    void bufferLimitAtNAndNPlusOne()
    {
        const auto limit = CVWebSocketServer::kMaxBufferedBytesPerConnection;
        LogCapture log;
        // Masking key plus payload is what one read holds.
        RawClient a, b;
        QVERIFY(a.handshake(server->port()));
        QVERIFY(b.handshake(server->port()));
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
};

QTEST_GUILESS_MAIN(TestWebSocketServer)
#include "tst_websocket_server.moc"
