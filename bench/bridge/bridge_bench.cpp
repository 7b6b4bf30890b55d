// Bridge throughput: N clients x M text frames against our server, QtWebSockets'
// QWebSocketServer and Node's ws server, under two loads: frame_blaster (prepared frames in
// large writes, so the server sets the pace) and Node's ws client (a real client, which
// costs about as much per message as the servers do). Then the blocked-domain handler
// against an empty and a 10 000-domain map. Loopback only.
//   bridge_bench [clients=50] [frames=2000] [payload bytes=64]
#include "extension/BrowserExtensionApi.h"
#include "foundation/FileSecretBackend.h"
#include "platform/linux/LinuxPlatform.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

#include <algorithm>
#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

namespace {
const QString kDir = QStringLiteral(PELORIN_BENCH_DIR);

struct Counter : CVWebSocketServerDelegate {
    CVWebSocketServer *server = nullptr;
    qint64 expected = 0, count = 0;
    void webSocketServerDidReceiveData(CVWebSocketServer *, const QByteArray &, const WebSocketConnection &) override
    {
        if (++count == expected)
            server->send(QStringLiteral("done"));
    }
};

enum class Load { Blaster, NodeClient };
Load g_load = Load::Blaster;

// Runs the load generator against `port`; milliseconds, or -1.
double runLoad(quint16 port, int clients, int frames, int size)
{
    QProcess load;
    load.setWorkingDirectory(kDir);
    const QStringList counts = {QString::number(port), QString::number(clients), QString::number(frames),
                                QString::number(size)};
    if (g_load == Load::Blaster)
        load.start(QStringLiteral(PELORIN_FRAME_BLASTER), counts);
    else
        load.start(QStringLiteral("node"), QStringList{kDir + QStringLiteral("/load_client.js")} + counts);
    // Sleep in the event loop like an application would: a polling loop here would take a core
    // from whichever server runs threads besides the main one.
    QEventLoop loop;
    QObject::connect(&load, &QProcess::finished, &loop, &QEventLoop::quit);
    QObject::connect(&load, &QProcess::errorOccurred, &loop, [&](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            loop.quit();
    });
    if (load.state() != QProcess::NotRunning)
        loop.exec();
    const QByteArray out = load.readAllStandardOutput();
    if (load.exitCode() != 0 || !out.startsWith("elapsed_ms")) {
        std::fprintf(stderr, "load client failed: %s %s\n", out.constData(), load.readAllStandardError().constData());
        return -1;
    }
    return out.split(' ').value(1).trimmed().toDouble();
}

// CPU seconds (user + system, all threads) a server spent on its run: throughput on a busy
// machine depends on the other processes, this does much less.
struct Run {
    double ms = -1;
    double cpuSeconds = 0;
};

double selfCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval &t) { return double(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Fields 14 and 15 of /proc/<pid>/stat, in clock ticks.
double processCpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

template <typename Body> Run measured(Body body)
{
    const double before = selfCpuSeconds();
    Run run;
    run.ms = body();
    run.cpuSeconds = selfCpuSeconds() - before;
    return run;
}

double benchOurs(int clients, int frames, int size)
{
    Counter counter;
    counter.expected = qint64(clients) * frames;
    auto server = CVWebSocketServer::initWithPort(0, &counter);
    counter.server = server.get();
    return runLoad(server->port(), clients, frames, size);
}

double benchQt(int clients, int frames, int size)
{
    QWebSocketServer server(QStringLiteral("bench"), QWebSocketServer::NonSecureMode);
    server.listen(QHostAddress::LocalHost, 0);
    qint64 count = 0;
    const qint64 expected = qint64(clients) * frames;
    QList<QWebSocket *> sockets;
    QObject::connect(&server, &QWebSocketServer::newConnection, [&] {
        QWebSocket *ws = server.nextPendingConnection();
        sockets << ws;
        QObject::connect(ws, &QWebSocket::textMessageReceived, [&](const QString &) {
            if (++count == expected)
                for (QWebSocket *s : sockets)
                    s->sendTextMessage(QStringLiteral("done"));
        });
    });
    const double ms = runLoad(server.serverPort(), clients, frames, size);
    qDeleteAll(sockets);
    return ms;
}

Run benchNode(int clients, int frames, int size)
{
    QProcess server;
    server.setWorkingDirectory(kDir);
    server.start(QStringLiteral("node"),
                 {kDir + QStringLiteral("/node_server.js"), QString::number(qint64(clients) * frames)});
    if (!server.waitForReadyRead(10000))
        return {};
    const quint16 port = server.readAllStandardOutput().split(' ').value(1).trimmed().toUShort();
    const double startCpu = processCpuSeconds(server.processId());
    Run run;
    run.ms = runLoad(port, clients, frames, size);
    run.cpuSeconds = processCpuSeconds(server.processId()) - startCpu;
    server.kill();
    server.waitForFinished();
    return run;
}

double cookieRate(int storedDomains, int messages)
{
    QTemporaryDir dir;
    AppStorageManager storage(
        dir.filePath(QStringLiteral("s.conf")),
        KeychainStore(QStringLiteral("bench"), std::make_shared<FileSecretBackend>(dir.filePath(QStringLiteral("k")))));
    LinuxPlatform platform;
    BrowserExtensionApi api(&storage, &platform);
    QVariantMap map;
    for (int i = 0; i < storedDomains; ++i)
        map.insert(QStringLiteral("stored%1.example").arg(i), i % 7 + 1);
    api.storage().storeBlockedDomains(map);
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < messages; ++i)
        api.dispatchMessage(QStringLiteral("Cookie%tracker%1.example%<EOF>").arg(i % 500));
    const double seconds = timer.nsecsElapsed() / 1e9;
    api.storage().flush();
    return messages / seconds;
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int clients = argc > 1 ? std::atoi(argv[1]) : 50;
    const int frames = argc > 2 ? std::atoi(argv[2]) : 2000;
    const int size = argc > 3 ? std::atoi(argv[3]) : 64;
    if (!QFile::exists(kDir + QStringLiteral("/node_modules/ws"))) {
        std::fprintf(stderr, "run 'npm install' in %s first\n", qPrintable(kDir));
        return 1;
    }
    const double total = double(clients) * frames;
    std::printf("%d clients x %d frames of %d bytes (%.0f messages), loopback\n", clients, frames, size, total);
    if (qEnvironmentVariableIsSet("BRIDGE_BENCH_COOKIES_ONLY"))
        goto cookies;
    for (const Load load : {Load::Blaster, Load::NodeClient}) {
        g_load = load;
        std::printf("load: %s\n", load == Load::Blaster ? "frame_blaster" : "node ws client");
        const Run ours = measured([&] { return benchOurs(clients, frames, size); });
        auto rate = [&](double ms) { return ms > 0 ? total / (ms / 1000.0) : 0.0; };
        auto line = [&](const char *name, const Run &run) {
            std::printf("  %-19s %10.0f msg/s  (%.0f ms, %.2f us CPU per message)\n", name, rate(run.ms), run.ms,
                        run.cpuSeconds * 1e6 / total);
        };
        if (qEnvironmentVariableIsSet("BRIDGE_BENCH_OURS_ONLY")) { // for profiling our server alone
            line("CVWebSocketServer", ours);
            return 0;
        }
        const Run qt = measured([&] { return benchQt(clients, frames, size); });
        const Run node = benchNode(clients, frames, size);
        line("CVWebSocketServer", ours);
        line("QWebSocketServer", qt);
        line("node ws", node);
        if (ours.ms > 0 && qt.ms > 0 && node.ms > 0)
            std::printf("  ours / Qt = %.2f, ours / node ws = %.2f\n", rate(ours.ms) / rate(qt.ms),
                        rate(ours.ms) / rate(node.ms));
    }
cookies:

    const int messages = 10000;
    cookieRate(10000, messages); // warm-up
    // Interleaved and best of three, so machine noise does not pose as growth.
    double empty = 0, full = 0;
    for (int round = 0; round < 3; ++round) {
        full = std::max(full, cookieRate(10000, messages));
        empty = std::max(empty, cookieRate(0, messages));
    }
    std::printf("%d \"Cookie%%\" messages: %.0f msg/s over an empty map, %.0f msg/s over 10 000 stored domains "
                "(ratio %.2f)\n",
                messages, empty, full, full / empty);
    return 0;
}
