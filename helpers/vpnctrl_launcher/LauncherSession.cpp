#include "LauncherSession.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <sys/types.h>
#include <unistd.h>

namespace {
constexpr const char *kBundleId = "com.pelorin.vpn.mac";
// Process names the marker may legitimately point at: our tunnel adapter and its child.
constexpr const char *kClientNames[] = {"ovpncli", "openvpn"};
// Longest command line we accept; anything longer is not a command of ours.
constexpr std::size_t kMaxLine = 256;

std::string env(const char *name)
{
    const char *v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

std::string readFirstLine(const std::string &path)
{
    std::ifstream f(path);
    std::string line;
    std::getline(f, line);
    return line;
}

bool processAlive(long pid)
{
    return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

// Real uid of a process from /proc, or -1.
long processUid(long pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line)) {
        if (line.rfind("Uid:", 0) == 0) {
            std::istringstream fields(line.substr(4));
            long uid = -1;
            fields >> uid;
            return uid;
        }
    }
    return -1;
}

bool isOurClient(long pid)
{
    const std::string comm = readFirstLine("/proc/" + std::to_string(pid) + "/comm");
    bool named = false;
    for (const char *name : kClientNames)
        named = named || comm == name;
    if (!named)
        return false;
    // A launcher with raised rights may end the root-owned client it was started for;
    // otherwise only processes of the same user.
    return ::geteuid() == 0 || processUid(pid) == static_cast<long>(::getuid());
}
} // namespace

LauncherSession::LauncherSession(std::string dataDir) : m_dataDir(std::move(dataDir)) {}

std::string LauncherSession::dataDirFromEnvironment()
{
    std::string root = env("PELORIN_DATA_HOME");
    if (root.empty())
        root = env("XDG_DATA_HOME");
    if (root.empty())
        root = env("HOME") + "/.local/share";
    return root + "/" + kBundleId;
}

long LauncherSession::markerPid() const
{
    const std::string text = readFirstLine(markerPath());
    if (text.empty())
        return 0;
    char *end = nullptr;
    const long pid = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || pid <= 0)
        return 0;
    return pid;
}

void LauncherSession::removeMarker() const
{
    ::unlink(markerPath().c_str());
}

bool LauncherSession::removeStaleMarker()
{
    if (::access(markerPath().c_str(), F_OK) != 0)
        return false;
    const long pid = markerPid();
    if (pid != 0 && processAlive(pid))
        return false;
    removeMarker();
    return true;
}

bool LauncherSession::endLeftoverClient()
{
    if (::access(markerPath().c_str(), F_OK) != 0)
        return false;
    const long pid = markerPid();
    bool signalled = false;
    if (pid != 0 && processAlive(pid) && isOurClient(pid))
        signalled = ::kill(static_cast<pid_t>(pid), SIGTERM) == 0;
    removeMarker();
    return signalled;
}

int LauncherSession::run(std::FILE *in, std::FILE *log)
{
    if (removeStaleMarker())
        std::fprintf(log, "vpnctrl_launcher: removed stale %s\n", markerPath().c_str());
    std::string line;
    int c = 0;
    bool tooLong = false;
    while ((c = std::fgetc(in)) != EOF) {
        if (c != '\n') {
            if (line.size() < kMaxLine)
                line.push_back(static_cast<char>(c));
            else
                tooLong = true;
            continue;
        }
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!tooLong && line == "quit") {
            if (endLeftoverClient())
                std::fprintf(log, "vpnctrl_launcher: ended leftover tunnel client\n");
            return 0;
        }
        std::fprintf(log, "vpnctrl_launcher: ignored command of %zu bytes\n", line.size());
        line.clear();
        tooLong = false;
    }
    // The application went away without a quit line (its end closed the pipe).
    return 0;
}
