#include "MaskedFrame.h"
#include "extension/WebSocketFrameDecoder.h"

#include <QtTest>

using namespace WebSocketFrameDecoder;

namespace {
struct Collected {
    QList<QByteArray> texts, replies;
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
    // Client frames of every length unmask and decode the same whatever the split.
    void framesRoundTripAtEverySplit()
    {
        const QByteArray huge(70000, 'H');
        QByteArray stream = maskedFrame(0x81, "hello") + maskedFrame(0x89, "abc") +
                            maskedFrame(0x81, huge, "\xde\xad\xbe\xef") +
                            maskedFrame(0x88, "\x03\xe8", "\xa1\xb2\xc3\xd4");
        QList<QByteArray> texts{"hello", huge};
        for (int n = 0; n <= 20; ++n) { // every tail length of the eight-byte unmasking
            QByteArray payload(n, Qt::Uninitialized);
            for (int i = 0; i < n; ++i)
                payload[i] = char(i * 37 + n);
            stream += maskedFrame(0x81, payload, "\x9c\x01\x7e\xf3");
            texts << payload;
        }
        const Collected whole = run({stream});
        QCOMPARE(whole.failures, QStringList());
        QCOMPARE(whole.texts, texts);
        QCOMPARE(whole.replies, (QList<QByteArray>{"\x8a\x03"
                                                   "abc",
                                                   "\x88\x02\xb2\xa1"}));
        for (qsizetype cut = 1; cut < stream.size(); cut += (cut < 400 ? 1 : 997)) {
            const Collected split = run({stream.left(cut), stream.mid(cut)});
            QCOMPARE(split.texts, whole.texts);
            QCOMPARE(split.replies, whole.replies);
        }
        QList<QByteArray> bytes;
        for (char ch : maskedFrame(0x81, "hi") + maskedFrame(0x89, "") + maskedFrame(0x81, QByteArray(300, 'B')))
            bytes << QByteArray(1, ch);
        QCOMPARE(run(bytes).texts, (QList<QByteArray>{"hi", QByteArray(300, 'B')}));
    }

    // Text without FIN is taken as a whole message; an unmasked frame's first four payload
    // bytes are taken as the key, and four bytes past the declared length are read into it.
    void inertChecksLetFragmentsAndUnmaskedFramesThrough()
    {
        QCOMPARE(run({maskedFrame(0x01, "part")}).texts, QList<QByteArray>{"part"});
        const Collected c = run({QByteArray("\x81\x06", 2) + "ABCDxy" + "1234"});
        QVERIFY(c.failures.isEmpty());
        QByteArray expected = "xy1234";
        for (int i = 0; i < expected.size(); ++i)
            expected[i] = static_cast<char>(expected[i] ^ "ABCD"[i % 4]);
        QCOMPARE(c.texts, QList<QByteArray>{expected});
    }

    void unsupportedOpcodesAreRefused()
    {
        for (unsigned char b0 : {0x80, 0x00, 0x82, 0x8A, 0x83, 0x8F}) {
            const Collected c = run({maskedFrame(b0, "x") + maskedFrame(0x81, "never")});
            QCOMPARE(c.failures, QStringList{"Cannot handle this websocket frame format!"});
            QVERIFY(c.texts.isEmpty());
        }
    }

    // A reader holds only what it was given, whatever was declared: 2 GB, or near 2^64 where
    // the length with its key must not wrap around into a small read.
    void declaredLengthIsNeverTakenOnTrust()
    {
        for (const auto &[length, pending] :
             {std::pair{QByteArray("\0\0\0\0\x80\0\0\0", 8), std::uint64_t(0x80000000) + 4},
              std::pair{QByteArray(8, '\xff'), std::numeric_limits<std::uint64_t>::max()}}) {
            WebSocketFrameReader reader([](const Step &) {});
            reader.feed("\x81\xff" + length + "keyXpartial");
            QCOMPARE(reader.pendingLength(), pending);
        }
    }
};

QTEST_GUILESS_MAIN(TestWebSocketParsers)
#include "tst_websocket_parsers.moc"
