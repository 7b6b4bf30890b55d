#include "foundation/KeyringMessage.h"

namespace KeyringMessage {
namespace {

constexpr char kRequestMagic[] = "PKQ1";
constexpr char kAnswerMagic[] = "PKA1";
constexpr qsizetype kMagicBytes = 4;

void putUint32(QByteArray &out, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.append(char((value >> shift) & 0xff));
}

bool putField(QByteArray &out, const QByteArray &field)
{
    if (field.size() > qsizetype(kMaxFieldBytes))
        return false;
    putUint32(out, std::uint32_t(field.size()));
    out.append(field);
    return true;
}

// Reads from the front of `bytes`, failing (and staying failed) on anything short.
class Reader {
public:
    explicit Reader(const QByteArray &bytes) : m_bytes(bytes) {}

    bool magic(const char *expected)
    {
        if (!take(kMagicBytes) || m_bytes.mid(m_pos - kMagicBytes, kMagicBytes) != expected)
            m_ok = false;
        return m_ok;
    }
    std::uint8_t byte() { return take(1) ? std::uint8_t(m_bytes.at(m_pos - 1)) : 0; }
    std::uint32_t uint32()
    {
        if (!take(4))
            return 0;
        std::uint32_t value = 0;
        for (qsizetype i = m_pos - 4; i < m_pos; ++i)
            value = (value << 8) | std::uint8_t(m_bytes.at(i));
        return value;
    }
    QByteArray field()
    {
        const std::uint32_t length = uint32();
        if (length > kMaxFieldBytes || !take(qsizetype(length))) {
            m_ok = false;
            return {};
        }
        return m_bytes.mid(m_pos - qsizetype(length), qsizetype(length));
    }
    // Everything read and nothing left over.
    bool done() const { return m_ok && m_pos == m_bytes.size(); }

private:
    bool take(qsizetype count)
    {
        if (!m_ok || m_bytes.size() - m_pos < count) {
            m_ok = false;
            return false;
        }
        m_pos += count;
        return true;
    }

    const QByteArray &m_bytes;
    qsizetype m_pos = 0;
    bool m_ok = true;
};

bool knownOperation(std::uint8_t value)
{
    return value >= std::uint8_t(Operation::Ping) && value <= std::uint8_t(Operation::Remove);
}

} // namespace

std::optional<QByteArray> encode(const Request &request)
{
    QByteArray out(kRequestMagic, kMagicBytes);
    out.append(char(request.operation));
    if (!putField(out, request.service) || !putField(out, request.account) || !putField(out, request.secret))
        return std::nullopt;
    return out;
}

std::optional<QByteArray> encode(const Answer &answer)
{
    QByteArray out(kAnswerMagic, kMagicBytes);
    putUint32(out, std::uint32_t(answer.status));
    if (!putField(out, answer.message) || !putField(out, answer.secret))
        return std::nullopt;
    return out;
}

std::optional<Request> decodeRequest(const QByteArray &bytes)
{
    Reader reader(bytes);
    Request request;
    reader.magic(kRequestMagic);
    const std::uint8_t operation = reader.byte();
    request.service = reader.field();
    request.account = reader.field();
    request.secret = reader.field();
    if (!reader.done() || !knownOperation(operation))
        return std::nullopt;
    request.operation = Operation(operation);
    return request;
}

std::optional<Answer> decodeAnswer(const QByteArray &bytes)
{
    Reader reader(bytes);
    Answer answer;
    reader.magic(kAnswerMagic);
    answer.status = std::int32_t(reader.uint32());
    answer.message = reader.field();
    answer.secret = reader.field();
    if (!reader.done())
        return std::nullopt;
    return answer;
}

} // namespace KeyringMessage
