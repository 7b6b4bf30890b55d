#pragma once

#include <QByteArray>
#include <QString>

#include <vector>

// Numbers shared by the benchmarks: order statistics, /proc readings, and the one result line
// format that bench/run-all.sh collects into its table:
//   RESULT<TAB>name<TAB>ours<TAB>peer<TAB>ratio<TAB>goal<TAB>met
namespace BenchReport {
double median(std::vector<double> values);
double percentile(std::vector<double> values, double p); // nearest rank, p in (0, 100]
void result(const QString &name, const QString &ours, const QString &peer, const QString &ratio, const QString &goal,
            const QString &met);
QString ratioText(double ours, double peer);

// One field (e.g. "VmRSS") of /proc/<pid>/status in kB, or -1.
qint64 statusKb(int pid, const char *field);
// Pss of /proc/<pid>/smaps_rollup in kB, or -1.
qint64 pssKb(int pid);

struct ThreadSwitches {
    int tid = 0;
    QByteArray name;
    qint64 voluntary = 0;
    qint64 involuntary = 0;
};
// Context switches of every thread of `pid`, from /proc/<pid>/task/*/status.
std::vector<ThreadSwitches> threadSwitches(int pid);
} // namespace BenchReport
