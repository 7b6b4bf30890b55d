// bench_startup [runs=25]
//
// Cold start of pelorin-vpn (a new process, files in the page cache) until its main window's
// first frame is drawn, against bench_bare_window showing a plain window of the same size.
// The marker is Qt's own: with the "qt.widgets.painting" log category on, the repaint manager
// prints "Flushing <region> of <widget>" once a window's paint is done and goes to the screen;
// the message pattern stamps it with the monotonic clock, which is also the clock read right
// before the fork. Nothing is added to the program. Runs alternate between the two; the
// first two of each are warm-up. Needs an X display (the program shows no window on the
// offscreen platform): run-all.sh starts Xvfb.
#include "common/BenchProcess.h"
#include "common/BenchReport.h"
#include "common/BenchSandbox.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <cstdio>

namespace {
constexpr int kDefaultRuns = 25;
constexpr int kWarmUpRuns = 2;
constexpr int kTimeoutMs = 20000;
constexpr double kGoalRatio = 1.3;

struct Sample {
    double stampedMs = -1; // from the message's own monotonic stamp
    double arrivedMs = -1; // when the line reached us (sanity check)
    QString window;
    int linesBefore = 0;
};

Sample firstFrame(const QString &program, const QStringList &args, QProcessEnvironment env)
{
    env.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("qt.widgets.painting=true"));
    env.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QStringLiteral("%{time boot} %{message}"));
    static const QRegularExpression marker(
        QStringLiteral("^\\s*(\\d+\\.\\d+) Flushing QRegion\\(0,0 522x319\\) of (\\w+)\\("));
    BenchProcess process;
    Sample sample;
    if (!process.start(program, args, env))
        return sample;
    const auto line = process.waitFor(
        [](const QByteArray &text) { return marker.match(QString::fromUtf8(text)).hasMatch(); }, kTimeoutMs);
    if (!line) {
        std::fprintf(stderr, "no first frame from %s; last output:\n%s\n", qPrintable(program),
                     process.tail(15).constData());
        return sample;
    }
    if (qEnvironmentVariableIsSet("BENCH_STARTUP_VERBOSE")) {
        for (qsizetype i = 0; i <= *line; ++i)
            std::fprintf(stderr, "%8.1f %s\n", process.lines()[i].arrivedMs - process.startedMs(),
                         process.lines()[i].text.left(160).constData());
    }
    const BenchProcess::Line &found = process.lines()[*line];
    const auto match = marker.match(QString::fromUtf8(found.text));
    sample.stampedMs = match.captured(1).toDouble() * 1000.0 - process.startedMs();
    sample.arrivedMs = found.arrivedMs - process.startedMs();
    sample.window = match.captured(2);
    sample.linesBefore = int(*line);
    process.stop();
    return sample;
}

void summary(const char *label, const std::vector<double> &ms, const std::vector<double> &arrived)
{
    std::printf("  %-22s median %7.1f ms  p90 %7.1f ms  min %7.1f ms  (line arrival median %.1f ms)\n", label,
                BenchReport::median(ms), BenchReport::percentile(ms, 90), *std::min_element(ms.begin(), ms.end()),
                BenchReport::median(arrived));
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : kDefaultRuns;
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        std::fprintf(stderr, "bench_startup: needs DISPLAY (an X server, e.g. Xvfb)\n");
        return 2;
    }
    BenchSandbox sandbox;
    if (!sandbox.start(QStringLiteral(PELORIN_BINARY_DIR))) {
        std::fprintf(stderr, "bench_startup: %s\n", qPrintable(sandbox.error()));
        return 1;
    }
    const QProcessEnvironment env = sandbox.environment();
    std::printf("startup to first frame, %d runs each (+%d warm-up), DISPLAY=%s\n", runs, kWarmUpRuns,
                qPrintable(qEnvironmentVariable("DISPLAY")));
    std::vector<double> ours, bare, oursArrived, bareArrived;
    QString window;
    int oursLines = 0;
    for (int i = 0; i < runs + kWarmUpRuns; ++i) {
        const Sample a = firstFrame(sandbox.appPath(), {}, env);
        const Sample b = firstFrame(sandbox.benchPath(QStringLiteral("bench_bare_window")), {}, env);
        if (a.stampedMs < 0 || b.stampedMs < 0)
            return 1;
        if (i < kWarmUpRuns)
            continue;
        ours.push_back(a.stampedMs);
        oursArrived.push_back(a.arrivedMs);
        bare.push_back(b.stampedMs);
        bareArrived.push_back(b.arrivedMs);
        window = a.window;
        oursLines = a.linesBefore;
    }
    std::printf("  first frame of pelorin-vpn is %s's (%d log lines before it)\n", qPrintable(window), oursLines);
    summary("pelorin-vpn", ours, oursArrived);
    summary("bare 522x319 QWidget", bare, bareArrived);
    const double ratio = BenchReport::median(ours) / BenchReport::median(bare);
    const double ratio90 = BenchReport::percentile(ours, 90) / BenchReport::percentile(bare, 90);
    std::printf("  ratio median %.2f, p90 %.2f\n", ratio, ratio90);
    const auto ms = [](double v) { return QString::asprintf("%.1f ms", v); };
    BenchReport::result(QStringLiteral("startup to first frame, median (Xvfb)"), ms(BenchReport::median(ours)),
                        ms(BenchReport::median(bare)),
                        BenchReport::ratioText(BenchReport::median(ours), BenchReport::median(bare)),
                        QStringLiteral("<= 1.3x"), ratio <= kGoalRatio ? QStringLiteral("yes") : QStringLiteral("NO"));
    BenchReport::result(QStringLiteral("startup to first frame, p90 (Xvfb)"), ms(BenchReport::percentile(ours, 90)),
                        ms(BenchReport::percentile(bare, 90)),
                        BenchReport::ratioText(BenchReport::percentile(ours, 90), BenchReport::percentile(bare, 90)),
                        QStringLiteral("<= 1.3x"),
                        ratio90 <= kGoalRatio ? QStringLiteral("yes") : QStringLiteral("NO"));
    return 0;
}
