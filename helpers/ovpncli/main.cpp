// ovpncli [--kill-switch] <profile>
// ovpncli --clear-kill-switch
//
// The tunnel client the application starts through sudo. It runs the system's openvpn on the
// profile, passes openvpn's log on line by line, and adds the marker lines the application
// reads the tunnel state from (see OvpnLogReader.h). SIGTERM, SIGINT or SIGHUP end openvpn
// and then ovpncli, so `pkill ovpncli` leaves no openvpn behind.
//
// With --kill-switch, traffic outside the tunnel is blocked (KillSwitch.h) from before openvpn
// starts until the run ends. One end keeps the block: openvpn ending by itself after the
// tunnel was up (the connection was lost), so nothing leaks before the application either
// starts the next run or clears it. Every run without the flag, and --clear-kill-switch,
// remove a table an earlier run left (also one left by a run that was killed).
#include "ChildSupervisor.h"
#include "KillSwitch.h"
#include "OvpnLogReader.h"
#include "ProfileHandOver.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <unistd.h>

namespace {
// Where Debian and most distributions install openvpn. No PATH search: we run as root.
constexpr const char *kOpenVpnLocations[] = {"/usr/sbin/openvpn", "/usr/bin/openvpn", "/sbin/openvpn"};
constexpr int kUsageStatus = 2;
constexpr int kNotFoundStatus = 127;
constexpr const char *kKillSwitchFlag = "--kill-switch";
constexpr const char *kClearKillSwitchFlag = "--clear-kill-switch";

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

// nft's words may end up in a line the application reads states from.
std::string harmless(const std::string &text)
{
    return OvpnLogReader::neutralised(text).substr(std::string_view("openvpn: ").size());
}

// Removes the table, saying so; false when it may still be there.
bool clearKillSwitch()
{
    const std::string problem = KillSwitch::clear();
    if (!problem.empty()) {
        printLine("ovpncli: kill switch: cannot remove the firewall table: " + harmless(problem));
        return false;
    }
    return true;
}

int clearOnly()
{
    if (!clearKillSwitch())
        return 1;
    printLine("ovpncli: kill switch off, traffic outside the tunnel is not blocked");
    return 0;
}
} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    // A stop asked for while the table goes in must still take it away.
    ChildSupervisor::catchStopSignals();
    if (argc == 2 && std::strcmp(argv[1], kClearKillSwitchFlag) == 0)
        return clearOnly();
    const bool killSwitch = argc == 3 && std::strcmp(argv[1], kKillSwitchFlag) == 0;
    if ((argc != 2 && !killSwitch) || argv[argc - 1][0] == '\0') {
        printLine("ovpncli: connect error, usage: ovpncli [--kill-switch] <profile.ovpn>");
        return kUsageStatus;
    }
    const std::string profile = argv[argc - 1];
    const ProfileHandOver handOver(profile);
    // Whatever happens to this run, a table left by an earlier one goes (or is replaced below).
    if (!killSwitch || !handOver.accepted())
        clearKillSwitch();
    if (!handOver.accepted()) {
        printLine("ovpncli: refused the profile: " + handOver.reason() +
                  "\novpncli: state DISCONNECTED, nothing was run");
        return kUsageStatus;
    }
    const std::string openvpn = findOpenVpn();
    if (openvpn.empty()) {
        printLine("ovpncli: connect error, the openvpn program was not found; install the openvpn package");
        if (killSwitch)
            clearKillSwitch();
        return kNotFoundStatus;
    }
    if (killSwitch) {
        if (const std::string problem = KillSwitch::install(handOver.checkedText()); !problem.empty()) {
            clearKillSwitch();
            printLine("ovpncli: connect error, traffic outside the tunnel cannot be blocked: " + harmless(problem));
            return 1;
        }
        printLine("ovpncli: kill switch on, traffic outside the tunnel is blocked");
    }

    printLine("ovpncli: running " + openvpn + " --config " + profile);
    OvpnLogReader reader;
    const auto result = ChildSupervisor::run(handOver.command(openvpn), [&](const char *data, std::size_t size) {
        for (const auto &line : reader.feed({data, size}))
            printLine(line);
    });
    // Read before finish(), which starts the next run's record.
    const bool tunnelWasLost = result.started && result.stopSignal == 0 && reader.connected();
    if (killSwitch && tunnelWasLost)
        printLine("ovpncli: kill switch kept, traffic stays blocked until the tunnel is back or it is cleared");
    else if (killSwitch && clearKillSwitch())
        printLine("ovpncli: kill switch off, traffic outside the tunnel is not blocked");
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
