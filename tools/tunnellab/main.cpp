// pelorin-tunnel-lab: the real-tunnel lab of the e2e tests as a program, for scripts/demo.sh.
//   pelorin-tunnel-lab --check            exit 0 when this machine can run it, else 77 + reason
//   pelorin-tunnel-lab BUILD_DIR          build it, print KEY=VALUE lines and READY, then keep it
//                                         up until SIGTERM/SIGINT/SIGHUP or the parent's death
// Everything (processes, namespaces, veth, work folder) goes away when it ends.
#include "tunnellab/TunnelLab.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
// The exit code CTest and the demo read as "cannot run here".
constexpr int kUnavailable = 77;
int g_signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

void print(const char *key, const QString &value)
{
    std::printf("%s=%s\n", key, qPrintable(value));
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() != 1) {
        std::fprintf(stderr, "usage: pelorin-tunnel-lab --check | BUILD_DIR\n");
        return 2;
    }
    if (const QString reason = TunnelLab::unavailableReason(); !reason.isEmpty()) {
        std::fprintf(stderr, "the tunnel lab cannot run here: %s\n", qPrintable(reason));
        return kUnavailable;
    }
    if (args.first() == QLatin1String("--check"))
        return 0;

    // Signals arrive as bytes on a socket, so teardown runs on the main thread after the loop.
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, g_signalPipe) != 0)
        return 1;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    for (int number : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(number, &action, nullptr);
    // A script killed outright must not leave the lab running.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);

    TunnelLab lab(QDir(args.first()).absolutePath());
    QString why;
    if (!lab.setUp(&why)) {
        std::fprintf(stderr, "the tunnel lab could not be built: %s\n", qPrintable(why));
        return 1;
    }
    // The client's private temporary folder: the product refuses one open to others.
    QDir().mkpath(lab.clientTemporaryDirectory());
    QFile::setPermissions(lab.clientTemporaryDirectory(),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    print("ROOT", lab.root());
    print("BACKEND_URL", lab.backendUrl());
    print("SUDO", lab.sudoPath());
    print("HELPERS_DIR", lab.helpersDirectory());
    print("CLIENT_TMPDIR", lab.clientTemporaryDirectory());
    print("CLIENT_NS", lab.clientNamespace());
    print("SERVER_NS", lab.serverNamespace());
    print("SERVER_LINK_ADDRESS", QLatin1String(TunnelLab::kServerLinkAddress));
    print("SERVER_TUNNEL_ADDRESS", QLatin1String(TunnelLab::kServerTunnelAddress));
    print("OUTSIDE_ADDRESS", QLatin1String(TunnelLab::kOutsideAddress));
    std::printf("READY\n");
    std::fflush(stdout);

    // The event loop also keeps draining the server's and the backend's output.
    QSocketNotifier stop(g_signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&stop, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
    app.exec();
    std::fprintf(stderr, "tunnel lab: tearing down\n");
    return 0;
}
