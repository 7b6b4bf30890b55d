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
        out.emplace_back("ovpncli: state CONNECTED");
    } else if (contains(line, kAuthFailedText)) {
        m_authFailed = true;
        out.emplace_back("ovpncli: AUTH_FAILED, the server rejected the user name or password");
    } else if (m_connected && contains(line, kRestartText)) {
        // A soft restart (ping timeout, network change): the tunnel is down until openvpn
        // reports it complete again.
        m_connected = false;
        out.emplace_back("ovpncli: state DISCONNECTED, openvpn is reconnecting");
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
        // The marker has been printed; a disconnect marker now would hide the reason.
        out.push_back("ovpncli: openvpn ended with status " + status + " after the authentication failure");
    else if (m_connected)
        out.push_back("ovpncli: state DISCONNECTED, openvpn ended with status " + status);
    else
        out.push_back("ovpncli: connect error, openvpn ended with status " + status + " before the tunnel was up");
    m_connected = false;
    return out;
}
