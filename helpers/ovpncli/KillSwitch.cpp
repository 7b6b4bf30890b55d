#include "KillSwitch.h"

#include "KillSwitchRules.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
// nft's complaints are a few lines; more is cut.
constexpr std::size_t kMaxNftOutput = 4096;

std::string nftPath()
{
    for (const char *path : KillSwitch::kNftLocations)
        if (access(path, X_OK) == 0)
            return path;
    return {};
}

long long nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Runs `nft -f -` on `script`; empty on success, else nft's words or why it did not run.
std::string runNft(const std::string &script)
{
    const std::string nft = nftPath();
    if (nft.empty())
        return "the nft program was not found; install the nftables package";
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0)
        return std::string("cannot make a pipe: ") + std::strerror(errno);
    if (pipe2(output, O_CLOEXEC) != 0) {
        close(input[0]);
        close(input[1]);
        return std::string("cannot make a pipe: ") + std::strerror(errno);
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(input[0], STDIN_FILENO);
        dup2(output[1], STDOUT_FILENO);
        dup2(output[1], STDERR_FILENO);
        for (int signo : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE})
            signal(signo, SIG_DFL);
        char *const argv[] = {const_cast<char *>(nft.c_str()), const_cast<char *>("-f"), const_cast<char *>("-"),
                              nullptr};
        char *const envp[] = {nullptr};
        execve(argv[0], argv, envp);
        _exit(127);
    }
    close(input[0]);
    close(output[1]);
    if (child < 0) {
        close(input[1]);
        close(output[0]);
        return std::string("cannot fork: ") + std::strerror(errno);
    }
    // The script is small (well under a pipe's buffer), so writing it first cannot block on
    // nft's output.
    std::size_t done = 0;
    while (done < script.size()) {
        const ssize_t n = write(input[1], script.data() + done, script.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    close(input[1]);

    std::string said;
    const long long deadline = nowMs() + KillSwitch::kNftTimeoutMs;
    char buffer[1024];
    while (true) {
        pollfd fd{output[0], POLLIN, 0};
        const long long left = deadline - nowMs();
        if (left <= 0)
            break;
        const int ready = poll(&fd, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            break;
        const ssize_t n = read(output[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (said.size() < kMaxNftOutput)
            said.append(buffer, static_cast<std::size_t>(n));
    }
    close(output[0]);
    int status = 0;
    if (nowMs() >= deadline)
        kill(child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return {};
    while (!said.empty() && (said.back() == '\n' || said.back() == ' '))
        said.pop_back();
    for (char &c : said)
        if (c == '\n')
            c = ' ';
    return "nft failed" + (said.empty() ? std::string() : ": " + said.substr(0, kMaxNftOutput));
}

// Every address `host` has, numeric; empty when it does not resolve.
std::vector<std::string> addressesOf(const std::string &host)
{
    std::vector<std::string> found;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *list = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0)
        return found;
    for (const addrinfo *entry = list; entry; entry = entry->ai_next) {
        char text[NI_MAXHOST];
        if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0)
            found.emplace_back(text);
    }
    freeaddrinfo(list);
    return found;
}
} // namespace

bool KillSwitch::available()
{
    return !nftPath().empty();
}

std::string KillSwitch::install(const std::string &checkedProfile)
{
    const auto tunnel = KillSwitchRules::tunnelOf(checkedProfile);
    if (!tunnel)
        return "the profile names no server or device the kill switch can let through";
    std::vector<KillSwitchRules::Server> servers;
    for (const KillSwitchRules::Remote &remote : tunnel->remotes) {
        const std::vector<std::string> addresses = addressesOf(remote.host);
        if (addresses.empty())
            return "the server name does not resolve";
        for (const std::string &address : addresses)
            servers.push_back({address, remote.port, remote.protocol});
    }
    const auto script = KillSwitchRules::ruleset(tunnel->device, servers);
    if (!script)
        return "the profile's server or device cannot be put in a firewall rule";
    return runNft(*script);
}

std::string KillSwitch::clear()
{
    if (!available())
        return {};
    return runNft(KillSwitchRules::clearing());
}
