#include "foundation/KeyringMessage.h"

namespace KeyringMessage {
namespace {

constexpr std::string_view kRequestMagic = "PKQ1";
constexpr std::string_view kAnswerMagic = "PKA1";

void putUint32(std::string &out, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(char((value >> shift) & 0xff));
}

bool putField(std::string &out, std::string_view field)
{
    if (field.size() > kMaxFieldBytes)
        return false;
    putUint32(out, std::uint32_t(field.size()));
    out.append(field);
    return true;
}

// Reads from the front of `bytes`, failing (and staying failed) on anything short.
class Reader {
public:
    explicit Reader(std::string_view bytes) : m_bytes(bytes) {}

    void magic(std::string_view expected)
    {
        const std::string_view available = m_bytes.substr(m_pos, expected.size());
        if (available != expected.substr(0, available.size()))
            m_ok = false;
        else
            take(expected.size());
    }
    std::uint8_t byte()
    {
        const std::string_view got = take(1);
        return got.empty() ? 0 : std::uint8_t(got[0]);
    }
    std::uint32_t uint32()
    {
        std::uint32_t value = 0;
        for (const char c : take(4))
            value = (value << 8) | std::uint8_t(c);
        return value;
    }
    std::string field()
    {
        const std::uint32_t length = uint32();
        if (length > kMaxFieldBytes) {
            refuse();
            return {};
        }
        return std::string(take(length));
    }
    // Marks the message invalid whatever follows.
    void refuse()
    {
        m_ok = false;
        m_short = false;
    }
    bool ok() const { return m_ok; }
    // Failed only for want of bytes: what was there is the start of a valid message.
    bool onlyShort() const { return !m_ok && m_short; }
    std::string_view rest() const { return m_bytes.substr(m_pos); }

private:
    // `count` bytes, or nothing once anything was short.
    std::string_view take(std::size_t count)
    {
        if (!m_ok)
            return {};
        if (m_bytes.size() - m_pos < count) {
            m_ok = false;
            m_short = true;
            return {};
        }
        m_pos += count;
        return m_bytes.substr(m_pos - count, count);
    }

    std::string_view m_bytes;
    std::size_t m_pos = 0;
    bool m_ok = true;
    bool m_short = false;
};

bool knownOperation(std::uint8_t value)
{
    return value >= std::uint8_t(Operation::Ping) && value <= std::uint8_t(Operation::AddLabelled);
}

template <typename Message>
std::optional<Message> whole(std::string_view bytes, std::optional<Message> (*take)(std::string_view &, bool *))
{
    std::optional<Message> message = take(bytes, nullptr);
    if (!message || !bytes.empty())
        return std::nullopt;
    return message;
}

} // namespace

std::optional<std::string> encode(const Request &request)
{
    std::string out(kRequestMagic);
    out.push_back(char(request.operation));
    if (!putField(out, request.service) || !putField(out, request.account) || !putField(out, request.secret))
        return std::nullopt;
    if (request.operation == Operation::AddLabelled && !putField(out, request.label))
        return std::nullopt;
    return out;
}

std::optional<std::string> encode(const Answer &answer)
{
    std::string out(kAnswerMagic);
    putUint32(out, std::uint32_t(answer.status));
    if (!putField(out, answer.message) || !putField(out, answer.secret))
        return std::nullopt;
    return out;
}

std::optional<Request> takeRequest(std::string_view &bytes, bool *incomplete)
{
    Reader reader(bytes);
    Request request;
    reader.magic(kRequestMagic);
    const std::uint8_t operation = reader.byte();
    if (reader.ok() && !knownOperation(operation))
        reader.refuse();
    request.service = reader.field();
    request.account = reader.field();
    request.secret = reader.field();
    if (operation == std::uint8_t(Operation::AddLabelled))
        request.label = reader.field();
    if (incomplete)
        *incomplete = reader.onlyShort();
    if (!reader.ok())
        return std::nullopt;
    request.operation = Operation(operation);
    bytes = reader.rest();
    return request;
}

std::optional<Answer> takeAnswer(std::string_view &bytes, bool *incomplete)
{
    Reader reader(bytes);
    Answer answer;
    reader.magic(kAnswerMagic);
    answer.status = std::int32_t(reader.uint32());
    answer.message = reader.field();
    answer.secret = reader.field();
    if (incomplete)
        *incomplete = reader.onlyShort();
    if (!reader.ok())
        return std::nullopt;
    bytes = reader.rest();
    return answer;
}

std::optional<Request> decodeRequest(std::string_view bytes)
{
    return whole(bytes, &takeRequest);
}

std::optional<Answer> decodeAnswer(std::string_view bytes)
{
    return whole(bytes, &takeAnswer);
}

} // namespace KeyringMessage
