// bench_connect_latency [runs]
//
// Connect latency through our stack (startVPNConnectionWithConfigContent until the state
// callback reports 3) against raw `openvpn --config` on the same profile until it prints
// "Initialization Sequence Completed", both against a real server in network namespaces.
// Runs alternate so that drift on the machine hits both sides alike; prints the medians and
// the overhead of our stack. Needs root, /dev/net/tun and `ip netns`.
#include "backend/NQIdentityServer.h"
#include "foundation/Log.h"
#include "tunnellab/TunnelLab.h"
#include "vpn/TunnelProfileFiles.h"
#include "vpn/support/VpnTestEnvironment.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>

namespace {
using Clock = std::chrono::steady_clock;
constexpr int kDefaultRuns = 7;
constexpr int kTimeoutMs = 30000;

// Waits in the event loop, looking at `done` after every event and at least every 10 ms. The
// loop sleeps between events: a polling loop would take a core from openvpn and the server.
bool spinUntil(const std::function<bool()> &done, int timeoutMs = kTimeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    QTimer tick;
    tick.start(10);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double msSince(Clock::time_point start, Clock::time_point end)
{
    return std::chrono::duration<double, std::milli>(end - start).count();
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : kDefaultRuns;
    if (const QString reason = TunnelLab::unavailableReason(); !reason.isEmpty()) {
        std::fprintf(stderr, "connect_latency: cannot run here: %s\n", qPrintable(reason));
        return 2;
    }
    TunnelLab lab(QStringLiteral(PELORIN_BINARY_DIR));
    QString why;
    if (!lab.setUp(&why)) {
        std::fprintf(stderr, "connect_latency: setup failed: %s\n", qPrintable(why));
        return 1;
    }
    VpnTestEnvironment env(lab.backendUrl(), {lab.helpersDirectory(), lab.sudoPath(), lab.clientTemporaryDirectory()});
    // The product's log lines, time-stamped, with BENCH_TRACE=1; silent otherwise.
    static const auto t0 = Clock::now();
    static const bool tracing = qEnvironmentVariableIsSet("BENCH_TRACE");
    static auto trace = [](const char *text) {
        if (tracing)
            std::printf("%8.1f %s\n", msSince(t0, Clock::now()), text);
    };
    NQLog::setSink([](const QString &line) { trace(qPrintable(line.left(120))); });

    QString user, password;
    bool registered = false;
    NQIdentityServer::sharedManager().registerVpnApi([&](const QString &u, const QString &p, const QString &) {
        user = u;
        password = p;
        registered = true;
    });
    QString profile;
    bool listed = false;
    NQVPNManager &vpn = env.manager();
    if (spinUntil([&] { return registered; }))
        vpn.getCountries([&](const QList<NQVPNCountry> &, const NQErrorOpt &) { listed = true; });
    if (spinUntil([&] { return listed; }) && !vpn.availableCountries().isEmpty())
        vpn.getCountryVPNConfig(vpn.availableCountries().first().countryId,
                                [&](const QString &ovpn, const QString &, const NQErrorOpt &) {
                                    profile = ovpn.isNull() ? QStringLiteral("-") : ovpn;
                                });
    if (!spinUntil([&] { return !profile.isNull(); }) || profile == QLatin1String("-") || user.isEmpty()) {
        std::fprintf(stderr, "connect_latency: no credentials or profile from the backend\n");
        return 1;
    }

    std::atomic<bool> connected = false;
    std::atomic<Clock::rep> connectedAt = 0;
    vpn.setOnConnectionStateChange([&](int state) {
        if (state == VpnStateConnected) {
            connectedAt = Clock::now().time_since_epoch().count();
            connected = true;
        }
    });
    const TunnelProfileFiles files([&lab] { return lab.clientTemporaryDirectory(); });

    std::vector<double> ours, raw;
    for (int i = 0; i < runs; ++i) {
        connected = false;
        const auto start = Clock::now();
        trace("start (ours)");
        vpn.startVPNConnectionWithConfigContent(profile, QStringLiteral("Bench"));
        if (!spinUntil([&] { return connected.load(); })) {
            std::fprintf(stderr, "connect_latency: our tunnel did not come up\n");
            return 1;
        }
        ours.push_back(msSince(start, Clock::time_point(Clock::duration(connectedAt.load()))));
        vpn.stopVPNConnection();
        spinUntil([&] { return lab.clientProcesses().isEmpty(); });

        // The same profile, prepared the same way, straight into openvpn.
        const QString path = files.prepare(profile, QStringLiteral("Raw"), user, password);
        QByteArray seen;
        const auto rawStart = Clock::now();
        trace("start (raw)");
        auto client = lab.startRawClient(path);
        QDeadlineTimer deadline(kTimeoutMs);
        while (!seen.contains("Initialization Sequence Completed") && !deadline.hasExpired() &&
               client->state() != QProcess::NotRunning) {
            client->waitForReadyRead(100);
            const QByteArray chunk = client->readAll();
            for (const QByteArray &line : chunk.split('\n'))
                if (!line.isEmpty())
                    trace(line.left(100).constData());
            seen += chunk;
        }
        const auto rawEnd = Clock::now();
        if (!seen.contains("Initialization Sequence Completed")) {
            std::fprintf(stderr, "connect_latency: raw openvpn did not come up:\n%s\n", seen.constData());
            return 1;
        }
        raw.push_back(msSince(rawStart, rawEnd));
        client->terminate();
        client->waitForFinished(10000);
        files.clearTemporaryDirectory();
        std::printf("run %d: ours %.1f ms, raw openvpn %.1f ms\n", i + 1, ours.back(), raw.back());
        std::fflush(stdout);
    }
    const double ratio = median(ours) / median(raw);
    std::printf(
        "median over %d runs: ours %.1f ms, raw openvpn %.1f ms, ratio %.3f (overhead %+.1f %%, goal <= 5 %%)\n", runs,
        median(ours), median(raw), ratio, (ratio - 1) * 100);
    vpn.setOnConnectionStateChange(nullptr);
    return 0;
}
