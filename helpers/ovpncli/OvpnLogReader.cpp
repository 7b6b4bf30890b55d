#include "OvpnLogReader.h"

#include <utility>

namespace {
// openvpn's own texts for the moments that change the tunnel state.
constexpr std::string_view kUpText = "Initialization Sequence Completed";
constexpr std::string_view kAuthFailedText = "AUTH_FAILED";
constexpr std::string_view kRestartText = "process restarting";

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

void replaceAll(std::string &text, std::string_view from, std::string_view to)
{
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}
} // namespace

std::string OvpnLogReader::neutralised(std::string_view line)
{
    std::string text(line);
    // Order matters: "DISCONNECTED" contains "CONNECTED".
    static const std::pair<std::string_view, std::string_view> kReplacements[] = {
        {"CONNECTED", "Connected"},
        {"AUTH_FAILED", "auth_failed"},
        {"Exiting due to signal", "exiting due to signal"},
        {"connect error", "connect-error"},
        {"killall", "kill-all"},
    };
    for (const auto &[from, to] : kReplacements)
        replaceAll(text, from, to);
    return "openvpn: " + text;
}

std::vector<std::string> OvpnLogReader::feed(std::string_view bytes)
{
    std::vector<std::string> out;
    while (!bytes.empty()) {
        const std::size_t newline = bytes.find('\n');
        const std::size_t take = newline == std::string_view::npos ? bytes.size() : newline;
        const std::size_t room = kMaxLineBytes - m_partial.size();
        if (take > room) {
            m_partial.append(bytes.substr(0, room));
            bytes.remove_prefix(room);
            takeLine(std::exchange(m_partial, {}), out);
            continue;
        }
        m_partial.append(bytes.substr(0, take));
        if (newline == std::string_view::npos)
            break;
        bytes.remove_prefix(newline + 1);
        takeLine(std::exchange(m_partial, {}), out);
    }
    return out;
}

void OvpnLogReader::takeLine(std::string_view line, std::vector<std::string> &out)
{
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    if (line.empty())
        return;
    out.push_back(neutralised(line));
    if (contains(line, kUpText)) {
        m_connected = true;
        m_authFailed = false;
        if (m_connectedReported) {
            out.emplace_back("ovpncli: the tunnel is back after openvpn's restart");
        } else {
            m_connectedReported = true;
            out.emplace_back("ovpncli: state CONNECTED");
        }
    } else if (contains(line, kAuthFailedText)) {
        m_authFailed = true;
        m_connectedReported = false;
        out.emplace_back("ovpncli: AUTH_FAILED, the server rejected the user name or password");
    } else if (m_connected && contains(line, kRestartText)) {
        // openvpn keeps its process and restores the tunnel by itself (ping timeout, network
        // change); if it gives up, its exit ends the run with the disconnect marker.
        out.emplace_back("ovpncli: openvpn is restarting the connection and will restore the tunnel");
    }
}

std::vector<std::string> OvpnLogReader::finish(int signalNumber, int exitStatus)
{
    std::vector<std::string> out;
    if (!m_partial.empty())
        takeLine(std::exchange(m_partial, {}), out);
    const std::string status = std::to_string(exitStatus);
    if (signalNumber > 0)
        out.push_back("ovpncli: Exiting due to signal " + std::to_string(signalNumber));
    else if (m_authFailed)
        out.push_back("ovpncli: connect error, the server rejected the user name or password; openvpn ended "
                      "with status " +
                      status);
    else if (m_connected)
        out.push_back("ovpncli: state DISCONNECTED, openvpn ended with status " + status);
    else
        out.push_back("ovpncli: connect error, openvpn ended with status " + status + " before the tunnel was up");
    m_connected = false;
    m_connectedReported = false;
    return out;
}

namespace {
// Length of the UTF-8 sequence starting at `text[at]`, or 0 when it does not decode
// (stray continuation byte, overlong form, surrogate, beyond U+10FFFF, cut short).
std::size_t sequenceLength(std::string_view text, std::size_t at)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80)
        return 1;
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0)
            low = 0xA0;
        else if (lead == 0xED)
            high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0)
            low = 0x90;
        else if (lead == 0xF4)
            high = 0x8F;
    } else {
        return 0;
    }
    if (at + length > text.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char next = byte(at + i);
        if (next < (i == 1 ? low : 0x80) || next > (i == 1 ? high : 0xBF))
            return 0;
    }
    return length;
}
} // namespace

std::vector<std::string> OvpnLogReader::forWriting(std::string_view line)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::vector<std::string> writes;
    std::string piece;
    // Room for the line feed.
    const std::size_t limit = kAtomicWriteBytes - 1;
    for (std::size_t at = 0; at < line.size();) {
        std::string unit;
        if (const std::size_t length = sequenceLength(line, at)) {
            unit = line.substr(at, length);
            at += length;
        } else {
            const auto value = static_cast<unsigned char>(line[at++]);
            unit = {'\\', 'x', kHex[value >> 4], kHex[value & 0xF]};
        }
        if (piece.size() + unit.size() > limit)
            writes.push_back(std::exchange(piece, {}) + '\n');
        piece += unit;
    }
    writes.push_back(piece + '\n');
    return writes;
}
