#include "RawClient.h"
#include "ServerRecorder.h"

#include "support/LogCapture.h"

#include <QTcpServer>
#include <QtTest>

#include <sys/resource.h>

class TestWebSocketServer : public QObject {
    Q_OBJECT

    ServerRecorder recorder;
    std::unique_ptr<CVWebSocketServer> server;

    void expectRefused(const QByteArray &request)
    {
        RawClient c;
        QVERIFY(c.connectTo(server->port()));
        c.write(request);
        QVERIFY(c.waitForClose());
        QVERIFY(c.received.isEmpty());
        QTRY_COMPARE(recorder.errors, QStringList{QStringLiteral("Invalid handshake from client")});
        QCOMPARE(recorder.errorData, QList<QByteArray>{request});
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(recorder.accepted, 0);
    }

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
        QCOMPARE(error->localizedDescription(), QStringLiteral("Error in bind() function"));
        QCOMPARE(log.lines().size(), 1);
        QVERIFY(log.lines()[0].startsWith(QLatin1String("CVWebSockerServer failed to initialize: ")));
        QVERIFY(log.lines()[0].contains(QLatin1String("Error in bind() function")));
    }

    void handshakeResponseIsExact()
    {
        RawClient c;
        QVERIFY(c.connectTo(server->port()));
        c.write("GET /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        const QByteArray expected = "HTTP/1.1 101 Web Socket Protocol Handshake\r\nUpgrade: websocket\r\nConnection: "
                                    "Upgrade\r\nSec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";
        QVERIFY(c.waitForBytes(expected.size()));
        QCOMPARE(c.received, expected);
        QTRY_COMPARE(recorder.accepted, 1);
        QCOMPARE(server->clientCount(), 1);
    }

    void refusedWithoutTrailingSlash() { expectRefused("GET /Quellon HTTP/1.1\r\nSec-WebSocket-Key: a\r\n\r\n"); }
    void refusedLowerCaseMethod() { expectRefused("get /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: a\r\n\r\n"); }
    void refusedLowerCaseKeyHeader() { expectRefused("GET /Quellon/ HTTP/1.1\r\nsec-websocket-key: a\r\n\r\n"); }
    void refusedGarbageBeforeHandshake()
    {
        expectRefused(QByteArray("\x16\x03\x01garbage\r\nGET /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key: a\r\n\r\n"));
    }

    void splitHandshakeFails()
    {
        RawClient c;
        QVERIFY(c.connectTo(server->port()));
        c.write("GET /Quellon/ HTTP/1.1\r\nHost: x\r\n");
        QTRY_COMPARE(recorder.errors.size(), 1);
        c.write("Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        QVERIFY(c.waitForClose());
        QVERIFY(!c.received.startsWith("HTTP/1.1 101"));
    }

    void textFramesReachTheDelegateInOrder()
    {
        RawClient c;
        QVERIFY(c.handshake(server->port()));
        const QByteArray big(70000, 'q');
        c.write(RawClient::frame(0x81, "one") + RawClient::frame(0x81, "two") + RawClient::frame(0x81, big));
        // Invalid UTF-8 is passed on as bytes; the server does not judge text.
        c.write(RawClient::frame(0x81, "\xff\xfe\xc3"));
        QTRY_COMPARE(recorder.messages.size(), 4);
        QCOMPARE(recorder.messages, (QList<QByteArray>{"one", "two", big, "\xff\xfe\xc3"}));
        QCOMPARE(recorder.disconnected, 0);
    }

    void sentFramesUseTheRightHeaderSize()
    {
        RawClient c;
        QVERIFY(c.handshake(server->port()));
        QTRY_COMPARE(server->clientCount(), 1);
        for (const auto &[length, header] : QList<std::pair<int, int>>{{125, 2}, {126, 4}, {65535, 4}, {65536, 10}}) {
            server->send(QString(length, QLatin1Char('s')));
            QVERIFY(c.waitForBytes(length + header));
            const QByteArray f = c.take(length + header);
            QCOMPARE(static_cast<unsigned char>(f[0]), 0x81);
            QCOMPARE(f[1] & 0x7f, length < 126 ? length : (length < 65536 ? 126 : 127));
            QCOMPARE(f.mid(header), QByteArray(length, 's'));
        }
    }

    void pingIsAnsweredWithPong()
    {
        RawClient c;
        QVERIFY(c.handshake(server->port()));
        c.write(RawClient::frame(0x89, "abc"));
        QVERIFY(c.waitForBytes(5));
        QCOMPARE(c.received, QByteArray("\x8a\x03"
                                        "abc"));
        QVERIFY(recorder.messages.isEmpty());
    }

    void closeIsAnsweredWithKeyBytesAndConnectionStaysOpen()
    {
        RawClient c;
        QVERIFY(c.handshake(server->port()));
        c.write(RawClient::frame(0x88, "\x03\xe8", "\x5a\x6b\x7c\x8d"));
        QVERIFY(c.waitForBytes(4));
        QCOMPARE(c.received, QByteArray("\x88\x02\x6b\x5a"));
        // The server waits for the client to close: further frames are still read.
        c.write(RawClient::frame(0x81, "still here"));
        QTRY_COMPARE(recorder.messages, QList<QByteArray>{"still here"});
        LogCapture log;
        c.socket.disconnectFromHost();
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(server->clientCount(), 0);
        QVERIFY(log.osTexts().value(0).endsWith(QLatin1String(" closed: Connection closed by the peer")));
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
            burstA += RawClient::frame(0x81, expectA.last());
            burstB += RawClient::frame(0x81, expectB.last());
        }
        a.write(burstA);
        b.write(burstB + RawClient::frame(0x82, "xx"));
        QTRY_COMPARE(recorder.messages.size(), 2 * kFrames);
        QTRY_COMPARE(recorder.disconnected, 1);
        QList<QByteArray> gotA, gotB;
        for (const QByteArray &m : recorder.messages)
            (m.startsWith('a') ? gotA : gotB) << m;
        QCOMPARE(gotA, expectA);
        QCOMPARE(gotB, expectB);
        QCOMPARE(recorder.errors.size(), 1);
        QCOMPARE(recorder.failedConnectionMessages, kFrames);
    }

    void binaryAndPongFramesCloseTheConnection()
    {
        LogCapture log;
        for (unsigned char b0 : {0x82, 0x8A}) {
            recorder = ServerRecorder();
            RawClient c;
            QVERIFY(c.handshake(server->port()));
            c.write(RawClient::frame(b0, "xx"));
            QVERIFY(c.waitForClose());
            QTRY_COMPARE(recorder.errors, QStringList{QStringLiteral("Cannot handle this websocket frame format!")});
            QCOMPARE(recorder.errorData, QList<QByteArray>{RawClient::frame(b0, "xx").left(2)});
            QTRY_COMPARE(recorder.disconnected, 1);
            QVERIFY(
                log.osTexts()
                    .value(log.osTexts().size() - 1)
                    .endsWith(QLatin1String(" closed: protocol error: Cannot handle this websocket frame format!")));
        }
    }

    void sendReachesEveryClientPastItsHandshake()
    {
        RawClient a, b, c, pending;
        QVERIFY(a.handshake(server->port()));
        QVERIFY(b.handshake(server->port()));
        QVERIFY(c.handshake(server->port()));
        QVERIFY(pending.connectTo(server->port()));
        QTRY_COMPARE(server->clientCount(), 4);
        server->send(QStringLiteral("to all"));
        for (RawClient *client : {&a, &b, &c}) {
            QVERIFY(client->waitForBytes(8));
            QCOMPARE(client->received, QByteArray("\x81\x06to all"));
        }
        // A frame ahead of the handshake response would break the client's handshake.
        QVERIFY(pending.upgrade());
        QTRY_COMPARE(recorder.accepted, 4);
        server->send(QStringLiteral("now"));
        QVERIFY(pending.waitForBytes(5));
        QCOMPARE(pending.received, QByteArray("\x81\x03now"));
        b.socket.disconnectFromHost();
        QTRY_COMPARE(server->clientCount(), 3);
        server->send(QStringLiteral("x"));
        QVERIFY(a.waitForBytes(16));
        QVERIFY(c.waitForBytes(16));
    }

    void hugeDeclaredFrameCostsNothingUntilSent()
    {
        RawClient c;
        QVERIFY(c.handshake(server->port()));
        // 2 GB declared, a handful of bytes sent, then the client vanishes mid-frame.
        c.write(QByteArray("\x81\xff\0\0\0\0\x80\0\0\0", 10) + "mask" + QByteArray(1000, 'p'));
        RawClient other;
        QVERIFY(other.handshake(server->port()));
        other.write(RawClient::frame(0x81, "unaffected"));
        QTRY_COMPARE(recorder.messages, QList<QByteArray>{"unaffected"});
        QCOMPARE(server->clientCount(), 2);
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
        const QByteArray fits(static_cast<int>(limit - 4), 'n');
        const QByteArray over(static_cast<int>(limit - 3), 'o');
        RawClient a, b;
        QVERIFY(a.handshake(server->port()));
        QVERIFY(b.handshake(server->port()));
        a.write(RawClient::frame(0x81, fits));
        b.write(RawClient::frame(0x81, over));
        QTRY_VERIFY_WITH_TIMEOUT(recorder.messages.size() == 1, 30000);
        QCOMPARE(recorder.messages[0].size(), fits.size());
        QVERIFY(b.waitForClose(30000));
        QTRY_COMPARE(recorder.disconnected, 1);
        QCOMPARE(a.socket.state(), QAbstractSocket::ConnectedState);
        QCOMPARE(log.osTexts(QStringLiteral("CVWebSocketServer")).size(), 1);
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
        live.write(RawClient::frame(0x81, "alive"));
        QTRY_COMPARE(recorder.messages, QList<QByteArray>{"alive"});
        idle.clear();
        QTRY_COMPARE_WITH_TIMEOUT(server->clientCount(), 1, 20000);
    }
};

QTEST_GUILESS_MAIN(TestWebSocketServer)
#include "tst_websocket_server.moc"
