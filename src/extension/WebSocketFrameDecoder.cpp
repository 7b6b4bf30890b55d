#include "extension/WebSocketFrameDecoder.h"

#include "extension/WebSocketFrame.h"

#include <cstring>
#include <limits>

namespace WebSocketFrameDecoder {

namespace {
constexpr int kOpText = 1;
constexpr int kOpClose = 8;
constexpr int kOpPing = 9;

unsigned char byteAt(const QByteArray &raw, qsizetype i)
{
    return i < raw.size() ? static_cast<unsigned char>(raw[i]) : 0;
}

Step refuse(const char *text, QByteArray raw)
{
    Step step;
    step.failure = QString::fromLatin1(text);
    step.rejected = std::move(raw);
    return step;
}

Step next(long tag, std::uint64_t length)
{
    Step step;
    step.nextTag = tag;
    step.nextLength = length;
    return step;
}

Step header(const QByteArray &raw)
{
    const unsigned char b0 = byteAt(raw, 0);
    const unsigned char b1 = byteAt(raw, 1);
    // These two checks negate the whole byte before testing the bit, so they never reject:
    // first fragments and unmasked frames are let through, as the extension has always seen.
    if ((static_cast<unsigned>(!b0) & 0x80u) != 0)
        return refuse("Can't decode fragmented frames!", raw);
    if ((static_cast<unsigned>(!b1) & 0x80u) != 0)
        return refuse("Can only handle websocket frames with masks!", raw);
    const int opcode = b0 & 0x0F;
    if (opcode != kOpText && opcode != kOpClose && opcode != kOpPing)
        return refuse(kUnsupportedFrame, raw);
    const int l7 = b1 & 0x7F;
    if (l7 == 126)
        return next(ExtendedLengthRead + opcode, 2);
    if (l7 == 127)
        return next(ExtendedLengthRead + opcode, 8);
    return next(PayloadRead + opcode, static_cast<std::uint64_t>(l7) + 4);
}

Step extendedLength(long tag, const QByteArray &raw)
{
    std::uint64_t length = 0;
    const int bytes = raw.size() == 2 ? 2 : 8;
    for (int i = 0; i < bytes; ++i)
        length = (length << 8) | byteAt(raw, i);
    // A declared length near 2^64 must not wrap into a small read.
    const std::uint64_t withKey =
        length > std::numeric_limits<std::uint64_t>::max() - 4 ? std::numeric_limits<std::uint64_t>::max() : length + 4;
    return next(tag + 16, withKey);
}

Step payload(long tag, QByteArray raw)
{
    const int opcode = tag & 0x0F;
    if (opcode != kOpText && opcode != kOpClose && opcode != kOpPing)
        return refuse(kUnsupportedFrame, std::move(raw));
    Step step = next(HeaderRead, 2);
    if (opcode == kOpClose) {
        // Echoes the second and first masking-key bytes where a status code would go; the
        // extension relies on nothing else, and this is what it has always been sent.
        step.reply = QByteArray("\x88\x02", 2);
        step.reply.append(static_cast<char>(byteAt(raw, 1)));
        step.reply.append(static_cast<char>(byteAt(raw, 0)));
        return step;
    }
    QByteArray data = unmask(std::move(raw));
    if (opcode == kOpText) {
        step.text = std::move(data);
    } else {
        step.reply = WebSocketFrame::webSocketFrameData(data);
        step.reply[0] = static_cast<char>(0x8A);
    }
    return step;
}
} // namespace

QByteArray unmask(QByteArray raw)
{
    if (raw.size() <= 4)
        return {};
    // In place: the key is read before the bytes it unmasks are written. Eight bytes at a
    // time, the key twice over: from offset 4 every eighth byte lines up with key[0] again.
    char *bytes = raw.data();
    const char key[8] = {bytes[0], bytes[1], bytes[2], bytes[3], bytes[0], bytes[1], bytes[2], bytes[3]};
    std::uint64_t key8;
    std::memcpy(&key8, key, sizeof key8);
    qsizetype i = 4;
    for (; i + 8 <= raw.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes + i, sizeof word);
        word ^= key8;
        std::memcpy(bytes + i, &word, sizeof word);
    }
    for (; i < raw.size(); ++i)
        bytes[i] = static_cast<char>(bytes[i] ^ key[i % 4]);
    // Dropping the key from the front moves the start, not the bytes.
    raw.remove(0, 4);
    return raw;
}

Step readStep(long tag, QByteArray raw)
{
    if (tag == HeaderRead)
        return header(raw);
    if (tag > ExtendedLengthRead && tag < PayloadRead)
        return extendedLength(tag, raw);
    if (tag > PayloadRead && tag < PayloadRead + 16)
        return payload(tag, std::move(raw));
    return refuse(kUnsupportedFrame, std::move(raw));
}

} // namespace WebSocketFrameDecoder

bool WebSocketFrameReader::feed(const QByteArray &bytes)
{
    if (m_failed)
        return false;
    m_buffer.append(bytes);
    while (static_cast<std::uint64_t>(m_buffer.size()) >= m_length) {
        const qsizetype n = static_cast<qsizetype>(m_length);
        const auto step = WebSocketFrameDecoder::readStep(m_tag, m_buffer.left(n));
        m_buffer.remove(0, n);
        m_handler(step);
        if (!step.failure.isEmpty() || step.nextTag == 0) {
            m_failed = true;
            return false;
        }
        m_tag = step.nextTag;
        m_length = step.nextLength;
    }
    return true;
}
