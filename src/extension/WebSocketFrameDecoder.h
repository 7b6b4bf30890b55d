#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <functional>
#include <optional>

// Client frame decoding as a pure function of one completed read. The server's parse state is
// the tag of its pending read; each step takes that tag and the bytes the read returned, and
// says what happened and which read to queue next. No socket, no allocation beyond the bytes
// actually received.
namespace WebSocketFrameDecoder {

// Read and write tags of a connection.
enum Tag : long {
    HandshakeRead = 1,
    HandshakeWrite = 2,
    FrameWrite = 3,
    HeaderRead = 4,
    ExtendedLengthRead = 16, // + opcode
    PayloadRead = 32,        // + opcode: masking key and payload
    ReplyWrite = -1,         // pong or close reply
};

inline constexpr auto kUnsupportedFrame = "Cannot handle this websocket frame format!";

struct Step {
    QString failure;                // not empty: refuse the connection
    QByteArray rejected;            // with a failure: the bytes refused
    std::optional<QByteArray> text; // a complete, unmasked text message
    QByteArray reply;               // bytes to write back with ReplyWrite (pong, close)
    long nextTag = 0;               // the read to queue next; 0 when none
    std::uint64_t nextLength = 0;   // its exact length
};

// One step for a read completed with `tag` (HeaderRead, ExtendedLengthRead + op, PayloadRead + op).
// A payload handed over unshared is unmasked where it lies.
Step readStep(long tag, QByteArray raw);

// Unmasks key-and-payload bytes: raw[i] ^ raw[i % 4] for i >= 4.
QByteArray unmask(QByteArray raw);

} // namespace WebSocketFrameDecoder

// Feeds a byte stream through readStep the way the socket would, for tests and fuzzing:
// bytes are held until the pending read can be met.
class WebSocketFrameReader {
public:
    using Handler = std::function<void(const WebSocketFrameDecoder::Step &)>;
    explicit WebSocketFrameReader(Handler handler) : m_handler(std::move(handler)) {}

    // False once a step has failed; later bytes are ignored.
    bool feed(const QByteArray &bytes);
    std::uint64_t pendingLength() const { return m_length; }

private:
    Handler m_handler;
    QByteArray m_buffer;
    long m_tag = WebSocketFrameDecoder::HeaderRead;
    std::uint64_t m_length = 2;
    bool m_failed = false;
};
