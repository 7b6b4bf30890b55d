// bench_wakeups [seconds=10]
//
// Idle wake-ups per second: voluntary plus involuntary context switches of every thread
// (/proc/PID/task/*/status) over a quiet window, for the windowed program on its home screen
// (disconnected, server list loaded) against bench_bare_window, and for the console program
// with its server list loaded against the bare console event loop. An idle, disconnected
// program has no timer of its own to run, so the goal is the floor: at most one wake-up a
// second above the peer.
//
// When gdb is installed it then attaches to our program for a few seconds and lists the
// QTimers that fire, how often and whose they are (timers.py), so an excess has a name.
#include "common/BenchProcess.h"
#include "common/BenchReport.h"
#include "common/BenchSandbox.h"
#include "common/BenchScenarios.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>

#include <csignal>
#include <cstdio>
#include <functional>

namespace {
constexpr int kDefaultSeconds = 10;
constexpr int kTimerWatchMs = 5000;
constexpr double kGoalExcessPerSecond = 1.0;

struct Rates {
    double total = 0;
    QStringList perThread;
};

Rates wakeups(BenchProcess &process, int seconds)
{
    std::map<int, BenchReport::ThreadSwitches> before;
    for (const auto &t : BenchReport::threadSwitches(process.pid()))
        before[t.tid] = t;
    process.drain(seconds * 1000);
    Rates rates;
    for (const auto &t : BenchReport::threadSwitches(process.pid())) {
        const auto &b = before[t.tid]; // a thread born in the window starts from zero
        const double vol = double(t.voluntary - b.voluntary) / seconds;
        const double inv = double(t.involuntary - b.involuntary) / seconds;
        rates.total += vol + inv;
        rates.perThread << QString::asprintf("    %-16s tid %-7d %7.1f voluntary/s %6.1f involuntary/s",
                                             t.name.constData(), t.tid, vol, inv);
    }
    return rates;
}

void listTimers(const char *label, BenchProcess &app)
{
    if (QStandardPaths::findExecutable(QStringLiteral("gdb")).isEmpty()) {
        std::printf("  (gdb not installed: timers not listed)\n");
        return;
    }
    QProcess gdb;
    gdb.start(QStringLiteral("gdb"),
              {QStringLiteral("-nx"), QStringLiteral("-batch"), QStringLiteral("-p"), QString::number(app.pid()),
               QStringLiteral("-ex"), QStringLiteral("source " PELORIN_BENCH_DIR "/timers.py"), QStringLiteral("-ex"),
               QStringLiteral("continue"), QStringLiteral("-ex"), QStringLiteral("python report()")});
    gdb.waitForStarted();
    // The program keeps writing to its terminal while gdb watches it: keep reading.
    app.drain(kTimerWatchMs);
    ::kill(pid_t(gdb.processId()), SIGINT); // stops the program; the batch reports and detaches
    if (!gdb.waitForFinished(15000))
        gdb.kill();
    QStringList fired;
    for (const QByteArray &line : gdb.readAllStandardOutput().split('\n'))
        if (line.startsWith("TIMER "))
            fired << QString::fromUtf8(line.mid(6));
    std::printf("  QTimers that fired in %s over ~%d s (gdb attached):\n", label, kTimerWatchMs / 1000);
    if (fired.isEmpty())
        std::printf("    none\n");
    for (const QString &timer : fired)
        std::printf("    %s\n", qPrintable(timer));
}

bool measure(const char *label, const std::function<bool(BenchProcess &, QString *)> &start, int seconds, Rates &rates,
             bool timers = false)
{
    BenchProcess process;
    QString why;
    if (!start(process, &why)) {
        std::fprintf(stderr, "bench_wakeups: %s\n", qPrintable(why));
        return false;
    }
    rates = wakeups(process, seconds);
    std::printf("  %s: %.1f wake-ups/s\n%s\n", label, rates.total, qPrintable(rates.perThread.join('\n')));
    if (timers)
        listTimers(label, process);
    process.stop();
    return true;
}

void report(const QString &name, const Rates &ours, const Rates &peer)
{
    const auto rate = [](double v) { return QString::asprintf("%.1f/s", v); };
    BenchReport::result(name, rate(ours.total), rate(peer.total), BenchReport::ratioText(ours.total, peer.total),
                        QStringLiteral("<= peer + 1/s"),
                        ours.total <= peer.total + kGoalExcessPerSecond ? QStringLiteral("yes") : QStringLiteral("NO"));
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : kDefaultSeconds;
    BenchSandbox sandbox;
    if (!sandbox.start(QStringLiteral(PELORIN_BINARY_DIR))) {
        std::fprintf(stderr, "bench_wakeups: %s\n", qPrintable(sandbox.error()));
        return 1;
    }
    using namespace BenchScenarios;
    std::printf("idle wake-ups over %d s after %d s of settling\n", seconds, kSettleMs / 1000);
    Rates gHome, gBare, hCat, hBare;
    if (!qEnvironmentVariableIsEmpty("DISPLAY")) {
        if (!measure(
                "pelorin-vpn, home screen", [&](BenchProcess &p, QString *w) { return guiHome(sandbox, p, w); },
                seconds, gHome, true) ||
            !measure(
                "bare window", [&](BenchProcess &p, QString *w) { return bare(sandbox, p, false, w); }, seconds, gBare))
            return 1;
        report(QStringLiteral("idle wake-ups, window on home screen"), gHome, gBare);
        // The counter itself: a bare window repainting every 40 ms must show about 25 timer
        // wake-ups a second, plus the X round trips of each repaint.
        Rates calibration;
        const QString path = sandbox.benchPath(QStringLiteral("bench_bare_window"));
        if (!measure(
                "check: bare window repainting every 40 ms",
                [&](BenchProcess &p, QString *w) {
                    return p.start(path, {QStringLiteral("--tick"), QStringLiteral("40")}, sandbox.environment()) &&
                           p.waitForText("ready", kReadyTimeoutMs);
                },
                seconds, calibration, true))
            return 1;
    } else {
        BenchReport::result(QStringLiteral("idle wake-ups, window on home screen"),
                            QStringLiteral("skipped: no DISPLAY"), QStringLiteral("-"), QStringLiteral("-"),
                            QStringLiteral("<= peer + 1/s"), QStringLiteral("-"));
    }
    if (!measure(
            "pelorin-vpn --headless, server list loaded",
            [&](BenchProcess &p, QString *w) { return headlessCatalogue(sandbox, p, w); }, seconds, hCat, true) ||
        !measure(
            "bare console event loop", [&](BenchProcess &p, QString *w) { return bare(sandbox, p, true, w); }, seconds,
            hBare))
        return 1;
    report(QStringLiteral("idle wake-ups, headless with server list"), hCat, hBare);
    return 0;
}
