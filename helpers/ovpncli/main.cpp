// ovpncli <profile>
//
// The tunnel client the application starts through sudo. It runs the system's openvpn on the
// profile, passes openvpn's log on line by line, and adds the marker lines the application
// reads the tunnel state from (see OvpnLogReader.h). SIGTERM, SIGINT or SIGHUP end openvpn
// and then ovpncli, so `pkill ovpncli` leaves no openvpn behind.
#include "ChildSupervisor.h"
#include "OvpnLogReader.h"
#include "ProfileHandOver.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

namespace {
// Where Debian and most distributions install openvpn. No PATH search: we run as root.
constexpr const char *kOpenVpnLocations[] = {"/usr/sbin/openvpn", "/usr/bin/openvpn", "/sbin/openvpn"};
constexpr int kUsageStatus = 2;
constexpr int kNotFoundStatus = 127;

void printLine(const std::string &line)
{
    // One write per line (or per piece of a long one), straight to the pipe: the reader sees
    // each line whole and as soon as it exists.
    for (const std::string &text : OvpnLogReader::forWriting(line)) {
        const char *data = text.data();
        std::size_t left = text.size();
        while (left > 0) {
            const ssize_t n = write(STDOUT_FILENO, data, left);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return;
            }
            data += n;
            left -= static_cast<std::size_t>(n);
        }
    }
}

std::string findOpenVpn()
{
    // A test can name another program, but never when started through sudo by a user.
    const char *chosen = std::getenv("OVPNCLI_OPENVPN");
    if (chosen && *chosen && !std::getenv("SUDO_USER"))
        return access(chosen, X_OK) == 0 ? std::string(chosen) : std::string();
    for (const char *path : kOpenVpnLocations)
        if (access(path, X_OK) == 0)
            return path;
    return {};
}
} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    if (argc != 2 || argv[1][0] == '\0') {
        printLine("ovpncli: connect error, usage: ovpncli <profile.ovpn>");
        return kUsageStatus;
    }
    const std::string profile = argv[1];
    const ProfileHandOver handOver(profile);
    if (!handOver.accepted()) {
        printLine("ovpncli: refused the profile: " + handOver.reason() +
                  "\novpncli: state DISCONNECTED, nothing was run");
        return kUsageStatus;
    }
    const std::string openvpn = findOpenVpn();
    if (openvpn.empty()) {
        printLine("ovpncli: connect error, the openvpn program was not found; install the openvpn package");
        return kNotFoundStatus;
    }

    printLine("ovpncli: running " + openvpn + " --config " + profile);
    OvpnLogReader reader;
    const auto result = ChildSupervisor::run(handOver.command(openvpn), [&](const char *data, std::size_t size) {
        for (const auto &line : reader.feed({data, size}))
            printLine(line);
    });
    if (!result.started) {
        printLine("ovpncli: connect error, " + result.error);
        return 1;
    }
    for (const auto &line : reader.finish(result.stopSignal, result.exitStatus))
        printLine(line);
    if (result.stopSignal)
        return 128 + result.stopSignal;
    return result.exitStatus;
}
