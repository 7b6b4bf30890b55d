#include "ChildSupervisor.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
int g_signalPipe[2] = {-1, -1};

void onSignal(int signo)
{
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(signo);
    [[maybe_unused]] const auto written = write(g_signalPipe[1], &byte, 1);
    errno = saved;
}

void installHandlers()
{
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signo : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaction(signo, &action, nullptr);
}

[[noreturn]] void execChild(const std::vector<std::string> &argv, int outputFd, pid_t parent)
{
    // The kernel ends the child when we die, even by SIGKILL. Checked against a parent that
    // died before the request took effect.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
        _exit(1);
    for (int signo : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE})
        signal(signo, SIG_DFL);
    const int devNull = open("/dev/null", O_RDONLY);
    dup2(devNull, STDIN_FILENO);
    dup2(outputFd, STDOUT_FILENO);
    dup2(outputFd, STDERR_FILENO);
    std::vector<char *> args;
    for (const auto &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    const std::string why = "ovpncli: cannot run " + argv[0] + ": " + std::strerror(errno) + "\n";
    [[maybe_unused]] const auto written = write(STDERR_FILENO, why.data(), why.size());
    _exit(127);
}

int statusOf(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return 128 + WTERMSIG(waitStatus);
    return 1;
}

long long nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}
} // namespace

void ChildSupervisor::catchStopSignals()
{
    if (g_signalPipe[0] >= 0 || pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    installHandlers();
}

ChildSupervisor::Result ChildSupervisor::run(const std::vector<std::string> &argv, const OutputHandler &onOutput)
{
    Result result;
    int output[2];
    catchStopSignals();
    if (g_signalPipe[0] < 0 || pipe2(output, O_CLOEXEC) != 0) {
        result.error = std::string("cannot make a pipe: ") + std::strerror(errno);
        return result;
    }
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        result.error = std::string("cannot fork: ") + std::strerror(errno);
        return result;
    }
    if (child == 0)
        execChild(argv, output[1], parent);
    close(output[1]);
    result.started = true;

    bool outputOpen = true;
    bool reaped = false;
    long long killAt = 0;
    char buffer[64 * 1024];
    while (outputOpen || !reaped) {
        pollfd fds[2] = {{g_signalPipe[0], POLLIN, 0}, {outputOpen ? output[0] : -1, POLLIN, 0}};
        const int timeout = killAt ? static_cast<int>(std::max(0LL, killAt - nowMs())) : -1;
        const int ready = poll(fds, 2, reaped ? 0 : timeout);
        if (ready < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLIN) {
            unsigned char signo = 0;
            while (read(g_signalPipe[0], &signo, 1) == 1) {
                if (signo != SIGCHLD && result.stopSignal == 0) {
                    result.stopSignal = signo;
                    kill(child, SIGTERM);
                    killAt = nowMs() + kStopGraceMs;
                }
            }
        }
        if (outputOpen && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            const ssize_t n = read(output[0], buffer, sizeof buffer);
            if (n > 0)
                onOutput(buffer, static_cast<std::size_t>(n));
            else if (n == 0 || errno != EINTR)
                outputOpen = false;
        }
        if (!reaped) {
            int status = 0;
            if (waitpid(child, &status, WNOHANG) == child) {
                reaped = true;
                result.exitStatus = statusOf(status);
                // A grandchild may still hold the pipe: take what is there, do not wait for it.
                fcntl(output[0], F_SETFL, O_NONBLOCK);
            } else if (killAt && nowMs() >= killAt) {
                kill(child, SIGKILL);
                killAt = 0;
            }
        } else if (outputOpen && ready == 0) {
            outputOpen = false;
        }
    }
    close(output[0]);
    return result;
}
