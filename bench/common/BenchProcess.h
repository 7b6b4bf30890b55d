#pragma once

#include <QByteArray>
#include <QList>
#include <QProcessEnvironment>
#include <QStringList>

#include <functional>
#include <optional>
#include <sys/types.h>

// A child process whose standard output and error go to a pseudo-terminal, so programs that
// send their log elsewhere when stderr is not a terminal keep it on the console. Every line
// is kept with the CLOCK_MONOTONIC time (ms) it arrived. The child leads its own process
// group, which stop() ends as a whole.
class BenchProcess {
public:
    struct Line {
        double arrivedMs = 0;
        QByteArray text;
    };

    BenchProcess() = default;
    BenchProcess(const BenchProcess &) = delete;
    BenchProcess &operator=(const BenchProcess &) = delete;
    ~BenchProcess() { stop(); }

    bool start(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment);
    pid_t pid() const { return m_pid; }
    // CLOCK_MONOTONIC (ms) right before the fork.
    double startedMs() const { return m_startedMs; }
    bool running();

    // Reads until a line satisfies `match` (its index in lines()), the child ends or `timeoutMs`.
    std::optional<qsizetype> waitFor(const std::function<bool(const QByteArray &)> &match, int timeoutMs);
    std::optional<qsizetype> waitForText(const QByteArray &text, int timeoutMs);
    // Keeps reading (so the child never blocks on a full terminal) for `ms`.
    void drain(int ms);
    const QList<Line> &lines() const { return m_lines; }
    QByteArray tail(int count) const;

    // SIGTERM to the group, SIGKILL after `graceMs`.
    void stop(int graceMs = 5000);

    static double nowMs();

private:
    bool readSome(int timeoutMs);

    pid_t m_pid = -1;
    int m_master = -1;
    double m_startedMs = 0;
    QByteArray m_partial;
    QList<Line> m_lines;
    qsizetype m_scanned = 0;
};
