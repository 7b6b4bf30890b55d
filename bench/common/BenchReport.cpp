#include "BenchReport.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace BenchReport {

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto rank = std::size_t(std::ceil(p / 100.0 * double(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

void result(const QString &name, const QString &ours, const QString &peer, const QString &ratio, const QString &goal,
            const QString &met)
{
    std::printf("RESULT\t%s\t%s\t%s\t%s\t%s\t%s\n", qPrintable(name), qPrintable(ours), qPrintable(peer),
                qPrintable(ratio), qPrintable(goal), qPrintable(met));
    std::fflush(stdout);
}

QString ratioText(double ours, double peer)
{
    return peer > 0 ? QString::asprintf("%.2fx", ours / peer) : QStringLiteral("n/a");
}

namespace {
qint64 fieldKb(const QString &path, const QByteArray &field)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}
} // namespace

qint64 statusKb(int pid, const char *field)
{
    return fieldKb(QStringLiteral("/proc/%1/status").arg(pid), field);
}

qint64 pssKb(int pid)
{
    return fieldKb(QStringLiteral("/proc/%1/smaps_rollup").arg(pid), "Pss");
}

std::vector<ThreadSwitches> threadSwitches(int pid)
{
    std::vector<ThreadSwitches> out;
    const QString taskDir = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString &tid : QDir(taskDir).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(taskDir + QLatin1Char('/') + tid + QStringLiteral("/status"));
        if (!file.open(QIODevice::ReadOnly))
            continue; // the thread has ended
        ThreadSwitches t;
        t.tid = tid.toInt();
        for (const QByteArray &line : file.readAll().split('\n')) {
            const QByteArray value = line.mid(line.indexOf(':') + 1).trimmed();
            if (line.startsWith("Name:"))
                t.name = value;
            else if (line.startsWith("voluntary_ctxt_switches:"))
                t.voluntary = value.toLongLong();
            else if (line.startsWith("nonvoluntary_ctxt_switches:"))
                t.involuntary = value.toLongLong();
        }
        out.push_back(t);
    }
    return out;
}

} // namespace BenchReport
