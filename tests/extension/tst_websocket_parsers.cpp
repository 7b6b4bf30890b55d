#include "extension/WebSocketFrame.h"
#include "extension/WebSocketFrameDecoder.h"
#include "extension/WebSocketHandshake.h"

#include <QtTest>

using namespace WebSocketFrameDecoder;

namespace {
QByteArray masked(unsigned char b0, const QByteArray &payload, const QByteArray &key = "\x11\x22\x33\x44")
{
    QByteArray frame;
    frame.append(static_cast<char>(b0));
    const auto n = static_cast<quint64>(payload.size());
    if (n < 126) {
        frame.append(static_cast<char>(0x80 | n));
    } else if (n < 65536) {
        frame.append(static_cast<char>(0x80 | 126));
        frame.append(static_cast<char>(n >> 8)).append(static_cast<char>(n));
    } else {
        frame.append(static_cast<char>(0x80 | 127));
        for (int i = 7; i >= 0; --i)
            frame.append(static_cast<char>(n >> (8 * i)));
    }
    frame.append(key);
    for (qsizetype i = 0; i < payload.size(); ++i)
        frame.append(static_cast<char>(payload[i] ^ key[i % 4]));
    return frame;
}

struct Collected {
    QList<QByteArray> texts;
    QList<QByteArray> replies;
    QStringList failures;
};

Collected run(const QList<QByteArray> &pieces)
{
    Collected c;
    WebSocketFrameReader reader([&](const Step &s) {
        if (s.text)
            c.texts << *s.text;
        if (!s.reply.isEmpty())
            c.replies << s.reply;
        if (!s.failure.isEmpty())
            c.failures << s.failure;
    });
    for (const auto &p : pieces)
        reader.feed(p);
    return c;
}
} // namespace

class TestWebSocketParsers : public QObject {
    Q_OBJECT
private slots:
    void handshakeAcceptsOnlyTheExactRequest_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QString>("accept"); // empty: refused
        const QByteArray key = "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
        const QString rfc = QStringLiteral("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
        QTest::newRow("rfc sample") << "GET /Quellon/ HTTP/1.1\r\nHost: x\r\n" + key + "\r\n" << rfc;
        QTest::newRow("only request and key") << "GET /Quellon/ HTTP/1.1\r\n" + key << rfc;
        QTest::newRow("key value padded") << QByteArray("GET /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key:   "
                                                        "dGhlIHNhbXBsZSBub25jZQ==  \r\n\r\n")
                                          << rfc;
        QTest::newRow("first qualifying key wins")
            << "GET /Quellon/ HTTP/1.1\r\n" + key + "Sec-WebSocket-Key: other\r\n\r\n"
            << rfc;
        QTest::newRow("no trailing slash") << "GET /Quellon HTTP/1.1\r\n" + key + "\r\n" << QString();
        QTest::newRow("lower-case method") << "get /Quellon/ HTTP/1.1\r\n" + key + "\r\n" << QString();
        QTest::newRow("double space") << "GET  /Quellon/ HTTP/1.1\r\n" + key + "\r\n" << QString();
        QTest::newRow("lower-case key header")
            << QByteArray("GET /Quellon/ HTTP/1.1\r\nsec-websocket-key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n") << QString();
        QTest::newRow("space before colon")
            << QByteArray("GET /Quellon/ HTTP/1.1\r\nSec-WebSocket-Key : dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n")
            << QString();
        QTest::newRow("no key") << QByteArray("GET /Quellon/ HTTP/1.1\r\nHost: x\r\n\r\n") << QString();
        QTest::newRow("garbage") << QByteArray("\x00\xff\x10garbage", 10) << QString();
        QTest::newRow("request line only, split") << QByteArray("GET /Quellon/ HTTP/1.1\r\nHo") << QString();
    }
    void handshakeAcceptsOnlyTheExactRequest()
    {
        QFETCH(QByteArray, request);
        QFETCH(QString, accept);
        const auto result = WebSocketHandshake::handshakeResponseForData(request);
        if (accept.isEmpty()) {
            QVERIFY(!result.ok);
            QCOMPARE(result.failure, QStringLiteral("Invalid handshake from client"));
            return;
        }
        QVERIFY(result.ok);
        QCOMPARE(result.response, QStringLiteral("HTTP/1.1 101 Web Socket Protocol Handshake\r\nUpgrade: websocket\r\n"
                                                 "Connection: Upgrade\r\nSec-WebSocket-Accept: %1\r\n\r\n")
                                      .arg(accept));
    }

    void encoderHeaderSizes()
    {
        const QList<std::pair<int, int>> cases = {{0, 2}, {125, 2}, {126, 4}, {65535, 4}, {65536, 10}, {70000, 10}};
        for (const auto &[length, header] : cases) {
            const QByteArray frame = WebSocketFrame::webSocketFrameData(QByteArray(length, 'p'));
            QCOMPARE(frame.size(), length + header);
            QCOMPARE(static_cast<unsigned char>(frame[0]), 0x81);
            quint64 declared = static_cast<unsigned char>(frame[1]);
            if (header == 4)
                declared = (static_cast<unsigned char>(frame[2]) << 8) | static_cast<unsigned char>(frame[3]);
            if (header == 10) {
                declared = 0;
                for (int i = 2; i < 10; ++i)
                    declared = (declared << 8) | static_cast<unsigned char>(frame[i]);
            }
            QCOMPARE(declared, quint64(length));
        }
        QCOMPARE(WebSocketFrame::webSocketFrameData(QStringLiteral("é")), QByteArray("\x81\x02\xc3\xa9"));
    }

    void streamDecodesTheSameAtEverySplit()
    {
        const QByteArray big(300, 'B');
        const QByteArray huge(70000, 'H');
        const QByteArray stream = masked(0x81, "hello") + masked(0x89, "abc") + masked(0x81, big) + masked(0x81, "") +
                                  masked(0x81, huge, "\xde\xad\xbe\xef") +
                                  masked(0x88, "\x03\xe8", "\xa1\xb2\xc3\xd4") + masked(0x81, "after close");
        const Collected whole = run({stream});
        QCOMPARE(whole.failures, QStringList());
        QCOMPARE(whole.texts, (QList<QByteArray>{"hello", big, "", huge, "after close"}));
        QCOMPARE(whole.replies, (QList<QByteArray>{"\x8a\x03"
                                                   "abc",
                                                   "\x88\x02\xb2\xa1"}));
        for (qsizetype cut = 1; cut < stream.size(); cut += (cut < 400 ? 1 : 997)) {
            const Collected split = run({stream.left(cut), stream.mid(cut)});
            QCOMPARE(split.texts, whole.texts);
            QCOMPARE(split.replies, whole.replies);
        }
        // Byte by byte over the small frames.
        const QByteArray small = masked(0x81, "hi") + masked(0x89, "") + masked(0x81, big);
        QList<QByteArray> bytes;
        for (char ch : small)
            bytes << QByteArray(1, ch);
        QCOMPARE(run(bytes).texts, (QList<QByteArray>{"hi", big}));
    }

    void unmaskUndoesTheMaskAtEveryLength()
    {
        const QByteArray key("\x9c\x01\x7e\xf3", 4);
        for (int n = 0; n <= 40; ++n) {
            QByteArray payload(n, Qt::Uninitialized);
            for (int i = 0; i < n; ++i)
                payload[i] = char(i * 37 + n);
            // masked() frames it; the key and payload are the frame's tail.
            const QByteArray raw = masked(0x81, payload, key).right(n + 4);
            QCOMPARE(unmask(raw), payload);
            QCOMPARE(raw.left(4), key); // a shared copy is left as it was
        }
    }

    void inertChecksLetFragmentsAndUnmaskedFramesThrough()
    {
        // Text without FIN is taken as a whole message.
        QCOMPARE(run({masked(0x01, "part")}).texts, QList<QByteArray>{"part"});
        // Unmasked: its first four payload bytes are taken as the key, and four bytes past the
        // declared length are read into the message.
        const QByteArray unmasked = QByteArray("\x81\x06", 2) + "ABCDxy" + "1234";
        const Collected c = run({unmasked});
        QVERIFY(c.failures.isEmpty());
        QByteArray expected = "xy1234";
        for (int i = 0; i < expected.size(); ++i)
            expected[i] = static_cast<char>(expected[i] ^ "ABCD"[i % 4]);
        QCOMPARE(c.texts, QList<QByteArray>{expected});
    }

    void unsupportedOpcodesAreRefused()
    {
        for (unsigned char b0 : {0x80, 0x00, 0x82, 0x8A, 0x83, 0x8F}) {
            const Collected c = run({masked(b0, "x") + masked(0x81, "never")});
            QCOMPARE(c.failures, QStringList{QStringLiteral("Cannot handle this websocket frame format!")});
            QVERIFY(c.texts.isEmpty());
        }
    }

    void declaredLengthIsNeverTakenOnTrust()
    {
        // 2^62 and the largest 64-bit value: the next read asks for them (plus the key) and
        // nothing wraps around into a small read.
        Step s = readStep(ExtendedLengthRead + 1, QByteArray("\x40\0\0\0\0\0\0\0", 8));
        QCOMPARE(s.nextTag, long(PayloadRead + 1));
        QCOMPARE(s.nextLength, (std::uint64_t(1) << 62) + 4);
        s = readStep(ExtendedLengthRead + 1, QByteArray(8, '\xff'));
        QCOMPARE(s.nextLength, std::numeric_limits<std::uint64_t>::max());
        s = readStep(ExtendedLengthRead + 9, QByteArray("\xff\xff", 2));
        QCOMPARE(s.nextTag, long(PayloadRead + 9));
        QCOMPARE(s.nextLength, std::uint64_t(65535 + 4));
        // A reader fed a 2 GB declaration holds only what it was given.
        WebSocketFrameReader reader([](const Step &) {});
        reader.feed(QByteArray("\x81\xff\0\0\0\0\x80\0\0\0", 10) + "keyXpartial");
        QCOMPARE(reader.pendingLength(), std::uint64_t(0x80000000) + 4);
    }
};

QTEST_GUILESS_MAIN(TestWebSocketParsers)
#include "tst_websocket_parsers.moc"
