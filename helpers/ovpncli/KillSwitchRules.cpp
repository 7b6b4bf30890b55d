#include "KillSwitchRules.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include <arpa/inet.h>

namespace {
constexpr std::string_view kCreate = "table inet pelorinvpn\n";
constexpr std::string_view kDelete = "delete table inet pelorinvpn\n";

// Words of one rebuilt line: plain words, or words in double quotes (which never hold a quote).
std::vector<std::string> wordsOf(std::string_view line)
{
    std::vector<std::string> words;
    std::size_t i = 0;
    while (i < line.size()) {
        if (line[i] == ' ') {
            ++i;
            continue;
        }
        if (line[i] == '"') {
            const std::size_t end = std::min(line.find('"', i + 1), line.size());
            words.emplace_back(line.substr(i + 1, end - i - 1));
            i = end + 1;
        } else {
            const std::size_t end = std::min(line.find(' ', i), line.size());
            words.emplace_back(line.substr(i, end - i));
            i = end;
        }
    }
    return words;
}

std::optional<int> portOf(const std::string &text)
{
    int port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port < 1 || port > KillSwitchRules::kMaxPort)
        return std::nullopt;
    return port;
}

std::optional<KillSwitchRules::Protocol> protocolOf(const std::string &text)
{
    static constexpr std::string_view kUdp[] = {"udp", "udp4", "udp6"};
    static constexpr std::string_view kTcp[] = {"tcp", "tcp4", "tcp6", "tcp-client", "tcp4-client", "tcp6-client"};
    if (std::find(std::begin(kUdp), std::end(kUdp), text) != std::end(kUdp))
        return KillSwitchRules::Protocol::Udp;
    if (std::find(std::begin(kTcp), std::end(kTcp), text) != std::end(kTcp))
        return KillSwitchRules::Protocol::Tcp;
    return std::nullopt;
}

// The interface name pattern for nft: "tun"/"tap" alone let openvpn pick the number.
std::optional<std::string> devicePattern(const std::string &device)
{
    const bool plain = !device.empty() && device.size() <= KillSwitchRules::kMaxDeviceBytes &&
                       std::all_of(device.begin(), device.end(), [](char c) {
                           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                                  c == '_' || c == '-' || c == '.';
                       });
    if (!plain)
        return std::nullopt;
    return (device == "tun" || device == "tap") ? device + "*" : device;
}

// The address as nft reads it, re-rendered from its binary form; "ip" or "ip6" in `family`.
std::optional<std::string> canonicalAddress(const std::string &text, std::string &family)
{
    unsigned char binary[16];
    char rendered[INET6_ADDRSTRLEN];
    for (const int af : {AF_INET, AF_INET6}) {
        if (inet_pton(af, text.c_str(), binary) == 1 && inet_ntop(af, binary, rendered, sizeof rendered)) {
            family = af == AF_INET ? "ip" : "ip6";
            return std::string(rendered);
        }
    }
    return std::nullopt;
}
} // namespace

std::optional<KillSwitchRules::Tunnel> KillSwitchRules::tunnelOf(std::string_view checkedProfile)
{
    Tunnel tunnel;
    int defaultPort = kDefaultPort;
    Protocol defaultProtocol = Protocol::Udp;
    struct Named {
        std::string host;
        std::string port;     // empty: the profile's default
        std::string protocol; // empty: the profile's default
    };
    std::vector<Named> named;
    bool inBlock = false;
    while (!checkedProfile.empty()) {
        const std::size_t end = std::min(checkedProfile.find('\n'), checkedProfile.size());
        const std::string_view line = checkedProfile.substr(0, end);
        checkedProfile.remove_prefix(std::min(end + 1, checkedProfile.size()));
        // Certificate text says nothing about the tunnel, whatever it looks like.
        if (!line.empty() && line.front() == '<') {
            inBlock = line.size() < 2 || line[1] != '/';
            continue;
        }
        if (inBlock)
            continue;
        const std::vector<std::string> words = wordsOf(line);
        if (words.size() < 2)
            continue;
        const std::string &name = words[0];
        if (name == "dev") {
            tunnel.device = words[1];
        } else if (name == "port" || name == "rport") {
            const auto port = portOf(words[1]);
            if (!port)
                return std::nullopt;
            defaultPort = *port;
        } else if (name == "proto") {
            const auto protocol = protocolOf(words[1]);
            if (!protocol)
                return std::nullopt;
            defaultProtocol = *protocol;
        } else if (name == "remote") {
            named.push_back(
                {words[1], words.size() > 2 ? words[2] : std::string(), words.size() > 3 ? words[3] : std::string()});
        }
    }
    if (named.empty() || tunnel.device.empty())
        return std::nullopt;
    // `port` and `proto` apply to every remote wherever they stand.
    for (const Named &remote : named) {
        Remote out{remote.host, defaultPort, defaultProtocol};
        if (!remote.port.empty()) {
            const auto port = portOf(remote.port);
            if (!port)
                return std::nullopt;
            out.port = *port;
        }
        if (!remote.protocol.empty()) {
            const auto protocol = protocolOf(remote.protocol);
            if (!protocol)
                return std::nullopt;
            out.protocol = *protocol;
        }
        tunnel.remotes.push_back(std::move(out));
    }
    return tunnel;
}

std::optional<std::string> KillSwitchRules::ruleset(const std::string &device, const std::vector<Server> &servers)
{
    const auto tunnelDevice = devicePattern(device);
    if (!tunnelDevice || servers.empty() || servers.size() > kMaxServers)
        return std::nullopt;
    std::string toServers;
    std::string fromServers;
    for (const Server &server : servers) {
        std::string family;
        const auto address = canonicalAddress(server.address, family);
        if (!address || server.port < 1 || server.port > kMaxPort)
            return std::nullopt;
        const std::string protocol = server.protocol == Protocol::Tcp ? "tcp" : "udp";
        const std::string port = std::to_string(server.port);
        toServers += "\t\t" + family + " daddr " + *address + " " + protocol + " dport " + port + " accept\n";
        fromServers += "\t\t" + family + " saddr " + *address + " " + protocol + " sport " + port + " accept\n";
    }
    // Created empty and deleted first, so loading replaces a table left by an earlier run in
    // the same transaction: there is no moment without it.
    std::string script(kCreate);
    script += kDelete;
    script += "table inet pelorinvpn {\n"
              "\tchain input {\n"
              "\t\ttype filter hook input priority filter - 10; policy drop;\n"
              "\t\tiifname \"lo\" accept\n"
              "\t\tiifname \"" +
              *tunnelDevice + "\" accept\n" + fromServers +
              "\t\tudp sport 67 udp dport 68 accept\n"
              "\t\tudp sport 547 udp dport 546 accept\n"
              "\t\ticmpv6 type { nd-router-advert, nd-neighbor-solicit, nd-neighbor-advert, nd-redirect } accept\n"
              "\t}\n"
              "\tchain output {\n"
              "\t\ttype filter hook output priority filter - 10; policy drop;\n"
              "\t\toifname \"lo\" accept\n"
              "\t\toifname \"" +
              *tunnelDevice + "\" accept\n" + toServers +
              "\t\tudp sport 68 udp dport 67 accept\n"
              "\t\tudp sport 546 udp dport 547 accept\n"
              "\t\ticmpv6 type { nd-router-solicit, nd-neighbor-solicit, nd-neighbor-advert } accept\n"
              "\t}\n"
              "}\n";
    return script;
}

std::string KillSwitchRules::clearing()
{
    return std::string(kCreate) + std::string(kDelete);
}
