#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The nftables table that blocks all traffic outside the tunnel: what the checked profile says
// about the tunnel (its device and the servers it talks to), and the ruleset text nft loads.
// The table lets through loopback, the tunnel device, the VPN servers (address, port and
// protocol), DHCP and IPv6 neighbour discovery; everything else in and out is dropped.
//
// Nothing from the profile reaches the ruleset as it was written: addresses are re-rendered
// from their binary form, ports are numbers, protocols one of two words and the device name
// a short plain name; anything else makes the builder refuse. Pure: text in, text out; no I/O.
class KillSwitchRules {
public:
    // Our own table; nothing else is ever added to or removed from the ruleset.
    static constexpr const char *kTable = "inet pelorinvpn";
    static constexpr int kDefaultPort = 1194;
    static constexpr int kMaxPort = 65535;
    // Linux interface names are at most 15 bytes.
    static constexpr std::size_t kMaxDeviceBytes = 15;
    // A profile names a handful of servers; each may resolve to a few addresses.
    static constexpr std::size_t kMaxServers = 64;

    enum class Protocol { Udp, Tcp };

    // A `remote` of the profile, before its name is resolved.
    struct Remote {
        std::string host;
        int port = kDefaultPort;
        Protocol protocol = Protocol::Udp;
    };
    struct Tunnel {
        std::string device; // as `dev` gives it ("tun", "tun3", "tap", ...)
        std::vector<Remote> remotes;
    };

    // A server as the table lets it through: a numeric address.
    struct Server {
        std::string address;
        int port = kDefaultPort;
        Protocol protocol = Protocol::Udp;
    };

    // The tunnel a profile describes, from the text the profile check rebuilt (one directive
    // per line, inline blocks between their tags). nullopt when a port or protocol is not one
    // openvpn would take, or the profile has no remote.
    static std::optional<Tunnel> tunnelOf(std::string_view checkedProfile);

    // The nft script that replaces our table (if any) with one for `device` and `servers`,
    // in one transaction; nullopt when a value is not safe to put in a ruleset.
    static std::optional<std::string> ruleset(const std::string &device, const std::vector<Server> &servers);

    // The nft script that removes our table; loads cleanly whether the table exists or not.
    static std::string clearing();
};
