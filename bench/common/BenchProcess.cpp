#include "BenchProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

double BenchProcess::nowMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
}

bool BenchProcess::start(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment)
{
    m_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0)
        return false;
    const char *slaveName = ptsname(m_master);
    if (!slaveName)
        return false;
    const int slave = ::open(slaveName, O_RDWR | O_NOCTTY);
    if (slave < 0)
        return false;
    termios mode{};
    tcgetattr(slave, &mode);
    cfmakeraw(&mode);
    tcsetattr(slave, TCSANOW, &mode);

    // Everything the child needs is prepared before the fork: it only calls async-safe functions.
    QList<QByteArray> argStore{program.toLocal8Bit()};
    for (const QString &a : arguments)
        argStore << a.toLocal8Bit();
    QList<QByteArray> envStore;
    for (const QString &e : environment.toStringList())
        envStore << e.toLocal8Bit();
    std::vector<char *> argv, envp;
    for (QByteArray &a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    for (QByteArray &e : envStore)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);

    m_startedMs = nowMs();
    m_pid = fork();
    if (m_pid == 0) {
        setsid();
        dup2(devNull, STDIN_FILENO);
        dup2(slave, STDOUT_FILENO);
        dup2(slave, STDERR_FILENO);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    ::close(slave);
    ::close(devNull);
    return m_pid > 0;
}

bool BenchProcess::running()
{
    if (m_pid <= 0)
        return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return false;
    }
    return true;
}

bool BenchProcess::readSome(int timeoutMs)
{
    if (m_master < 0)
        return false;
    pollfd p{m_master, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0)
        return false;
    char buffer[8192];
    const ssize_t n = ::read(m_master, buffer, sizeof buffer);
    if (n <= 0) // EIO: every writer has gone
        return false;
    const double at = nowMs();
    m_partial.append(buffer, n);
    qsizetype end;
    while ((end = m_partial.indexOf('\n')) >= 0) {
        QByteArray text = m_partial.left(end);
        if (text.endsWith('\r'))
            text.chop(1);
        m_lines.append({at, text});
        m_partial.remove(0, end + 1);
    }
    return true;
}

std::optional<qsizetype> BenchProcess::waitFor(const std::function<bool(const QByteArray &)> &match, int timeoutMs)
{
    const double deadline = nowMs() + timeoutMs;
    for (;;) {
        for (; m_scanned < m_lines.size(); ++m_scanned) {
            if (match(m_lines[m_scanned].text))
                return m_scanned++;
        }
        const double left = deadline - nowMs();
        if (left <= 0)
            return std::nullopt;
        if (!readSome(int(std::min(left, 200.0))) && !running())
            return std::nullopt;
    }
}

std::optional<qsizetype> BenchProcess::waitForText(const QByteArray &text, int timeoutMs)
{
    return waitFor([&text](const QByteArray &line) { return line.contains(text); }, timeoutMs);
}

void BenchProcess::drain(int ms)
{
    const double deadline = nowMs() + ms;
    for (double left = ms; left > 0; left = deadline - nowMs())
        readSome(int(left) + 1);
}

QByteArray BenchProcess::tail(int count) const
{
    QByteArray out;
    for (qsizetype i = std::max<qsizetype>(0, m_lines.size() - count); i < m_lines.size(); ++i)
        out += m_lines[i].text + '\n';
    return out;
}

void BenchProcess::stop(int graceMs)
{
    if (m_pid > 0) {
        ::kill(-m_pid, SIGTERM);
        const double deadline = nowMs() + graceMs;
        while (running() && nowMs() < deadline)
            readSome(20);
        if (m_pid > 0) {
            ::kill(-m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }
    if (m_master >= 0) {
        ::close(m_master);
        m_master = -1;
    }
}
