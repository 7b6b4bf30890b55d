// bench_memory [launches=3]
//
// Idle memory of pelorin-vpn once it has settled: the windowed program on its home screen
// with the server list loaded, against bench_bare_window (a plain 522 x 319 window), and the
// console program provisioned with the server list loaded, against the bare console event
// loop; where dbus-daemon and gnome-keyring-daemon are installed, the console program once more
// with its secrets in a private unlocked keyring (checked to be there afterwards). Reads VmRSS from /proc/PID/status
// and Pss from /proc/PID/smaps_rollup (Pss shares the Qt libraries' pages among the processes mapping them), median
// over the launches, and prints what the resident pages of the last launch are made of.
#include "common/BenchKeyring.h"
#include "common/BenchProcess.h"
#include "common/BenchReport.h"
#include "common/BenchSandbox.h"
#include "common/BenchScenarios.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace {
constexpr int kDefaultLaunches = 3;
constexpr double kGuiGoalMB = 45;
constexpr double kHeadlessGoalMB = 15;
const QString kKeychainService = QStringLiteral("com.pelorin.vpn.mac");
// Folders the keyring runs get afresh, so the console provisions again and writes its
// secrets into the keyring instead of finding them in the file store's folder.
const char *const kOwnFolders[] = {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "PELORIN_DATA_HOME"};

struct Memory {
    std::vector<double> rssMB, pssMB;
    QMap<QString, qint64> breakdownKb; // of the last launch
    qint64 anonKb = 0, fileKb = 0, hwmKb = 0;
};

double megabytes(qint64 kb)
{
    return double(kb) * 1024.0 / 1e6;
}

// Resident kB per mapping, files by name, anonymous memory as [heap] / [anon] / [stack].
QMap<QString, qint64> breakdown(int pid)
{
    QMap<QString, qint64> out;
    QFile smaps(QStringLiteral("/proc/%1/smaps").arg(pid));
    if (!smaps.open(QIODevice::ReadOnly))
        return out;
    QString current;
    for (const QByteArray &line : smaps.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() >= 5 && fields[0].contains('-') && !fields[0].endsWith(':')) {
            const QString path = fields.size() >= 6 ? QString::fromUtf8(fields.mid(5).join(' ')) : QString();
            current = path.isEmpty() ? QStringLiteral("[anon]") : path.section(QLatin1Char('/'), -1);
            if (current.startsWith(QLatin1String("[stack")))
                current = QStringLiteral("[stack]");
        } else if (line.startsWith("Rss:")) {
            out[current] += fields.value(1).toLongLong();
        }
    }
    return out;
}

QProcessEnvironment withOwnFolders(QProcessEnvironment environment)
{
    for (const char *name : kOwnFolders) {
        const QString folder = environment.value(QLatin1String(name)) + QStringLiteral("-keyring");
        QDir().mkpath(folder);
        environment.insert(QLatin1String(name), folder);
    }
    return environment;
}

// Secrets files the program left under the keyring runs' folders (there must be none).
QStringList secretFiles(const QProcessEnvironment &environment)
{
    QStringList found;
    for (const char *name : kOwnFolders) {
        QDirIterator it(environment.value(QLatin1String(name)), {QStringLiteral("secrets.json")}, QDir::Files,
                        QDirIterator::Subdirectories);
        while (it.hasNext())
            found << it.next();
    }
    found.removeDuplicates();
    return found;
}

bool measure(const std::function<bool(BenchProcess &, QString *)> &start, Memory &memory)
{
    BenchProcess process;
    QString why;
    if (!start(process, &why)) {
        std::fprintf(stderr, "bench_memory: %s\n", qPrintable(why));
        return false;
    }
    memory.rssMB.push_back(megabytes(BenchReport::statusKb(process.pid(), "VmRSS")));
    memory.pssMB.push_back(megabytes(BenchReport::pssKb(process.pid())));
    memory.breakdownKb = breakdown(process.pid());
    memory.anonKb = BenchReport::statusKb(process.pid(), "RssAnon");
    memory.fileKb = BenchReport::statusKb(process.pid(), "RssFile");
    memory.hwmKb = BenchReport::statusKb(process.pid(), "VmHWM");
    process.stop();
    return true;
}

void printBreakdown(const char *label, const Memory &memory)
{
    const QMap<QString, qint64> &kb = memory.breakdownKb;
    std::printf("  %s: RssAnon %.1f MB (heap, private), RssFile %.1f MB (mapped files), peak VmHWM %.1f MB\n", label,
                megabytes(memory.anonKb), megabytes(memory.fileKb), megabytes(memory.hwmKb));
    std::vector<std::pair<qint64, QString>> sorted;
    for (auto it = kb.begin(); it != kb.end(); ++it)
        sorted.emplace_back(it.value(), it.key());
    std::sort(sorted.rbegin(), sorted.rend());
    std::printf("    resident by mapping (top 12):\n");
    for (std::size_t i = 0; i < sorted.size() && i < 12; ++i)
        std::printf("      %8.1f MB  %s\n", megabytes(sorted[i].first), qPrintable(sorted[i].second));
}

void report(const QString &name, const Memory &ours, const Memory &peer, double goalMB)
{
    const double rss = BenchReport::median(ours.rssMB), peerRss = BenchReport::median(peer.rssMB);
    const double pss = BenchReport::median(ours.pssMB), peerPss = BenchReport::median(peer.pssMB);
    const auto mb = [](double v) { return QString::asprintf("%.1f MB", v); };
    const QString goal = QString::asprintf("<= %.0f MB", goalMB);
    BenchReport::result(name + QStringLiteral(", RSS"), mb(rss), mb(peerRss), BenchReport::ratioText(rss, peerRss),
                        goal, rss <= goalMB ? QStringLiteral("yes") : QStringLiteral("NO"));
    BenchReport::result(name + QStringLiteral(", PSS"), mb(pss), mb(peerPss), BenchReport::ratioText(pss, peerPss),
                        goal, pss <= goalMB ? QStringLiteral("yes") : QStringLiteral("NO"));
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int launches = argc > 1 ? std::max(1, std::atoi(argv[1])) : kDefaultLaunches;
    BenchSandbox sandbox;
    if (!sandbox.start(QStringLiteral(PELORIN_BINARY_DIR))) {
        std::fprintf(stderr, "bench_memory: %s\n", qPrintable(sandbox.error()));
        return 1;
    }
    const bool gui = !qEnvironmentVariableIsEmpty("DISPLAY");
    std::printf("idle memory after %d s of settling, %d launches each (MB = 10^6 bytes)\n",
                BenchScenarios::kSettleMs / 1000, launches);
    Memory gHome, gBare, hCat, hBare;
    for (int i = 0; i < launches; ++i) {
        using namespace BenchScenarios;
        if (gui && (!measure([&](BenchProcess &p, QString *w) { return guiHome(sandbox, p, w); }, gHome) ||
                    !measure([&](BenchProcess &p, QString *w) { return bare(sandbox, p, false, w); }, gBare)))
            return 1;
        if (!measure([&](BenchProcess &p, QString *w) { return headlessCatalogue(sandbox, p, w); }, hCat) ||
            !measure([&](BenchProcess &p, QString *w) { return bare(sandbox, p, true, w); }, hBare))
            return 1;
    }
    // The console with the Secret Service in use: a private bus and keyring for these runs.
    Memory hKey;
    BenchKeyring keyring;
    const bool withKeyring = keyring.start(withOwnFolders(sandbox.environment()));
    if (withKeyring) {
        for (int i = 0; i < launches; ++i)
            if (!measure(
                    [&](BenchProcess &p, QString *w) {
                        return BenchScenarios::headlessCatalogue(sandbox, keyring.environment(), p, w);
                    },
                    hKey))
                return 1;
        const int items = keyring.itemCount(kKeychainService);
        const QStringList files = secretFiles(keyring.environment());
        if (items < 1 || !files.isEmpty()) {
            std::fprintf(stderr, "bench_memory: the console did not keep its secrets in the keyring (%d items; %s)\n",
                         items, qPrintable(files.join(QStringLiteral(", "))));
            return 1;
        }
        std::printf("keyring runs: %d items under %s in the private keyring, no secrets file\n", items,
                    qPrintable(kKeychainService));
    }
    if (gui) {
        printBreakdown("pelorin-vpn, home screen", gHome);
        printBreakdown("bare window", gBare);
    }
    printBreakdown("pelorin-vpn --headless, server list loaded", hCat);
    if (withKeyring)
        printBreakdown("pelorin-vpn --headless, server list loaded, secrets in the keyring", hKey);
    printBreakdown("bare console event loop", hBare);
    if (gui)
        report(QStringLiteral("idle memory, window on home screen"), gHome, gBare, kGuiGoalMB);
    else
        BenchReport::result(QStringLiteral("idle memory, window on home screen"), QStringLiteral("skipped: no DISPLAY"),
                            QStringLiteral("-"), QStringLiteral("-"), QStringLiteral("<= 45 MB"), QStringLiteral("-"));
    report(QStringLiteral("idle memory, headless with server list"), hCat, hBare, kHeadlessGoalMB);
    const QString keyringRow = QStringLiteral("idle memory, headless with server list and keyring");
    if (withKeyring)
        report(keyringRow, hKey, hBare, kHeadlessGoalMB);
    else
        BenchReport::result(keyringRow + QStringLiteral(", RSS"), QStringLiteral("skipped: ") + keyring.error(),
                            QStringLiteral("-"), QStringLiteral("-"), QStringLiteral("<= 15 MB"), QStringLiteral("-"));
    return 0;
}
