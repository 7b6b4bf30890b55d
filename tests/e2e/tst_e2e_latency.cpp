// The server list's latency probe against the lab's real OpenVPN server, from the client
// namespace.
#include "tunnellab/TunnelLab.h"
#include "vpn/UdpLatencyProbe.h"

#include <QtTest>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

class TestE2eLatency : public QObject {
    Q_OBJECT

private slots:
    void labServerAnswersTheProbe()
    {
        if (const QString reason = TunnelLab::unavailableReason(); !reason.isEmpty())
            QSKIP(qPrintable(QStringLiteral("real tunnel test skipped: ") + reason));
        TunnelLab lab(QString::fromLocal8Bit(qgetenv("PELORIN_BINARY_DIR")));
        QString why;
        QVERIFY2(lab.setUp(&why), qPrintable(why));

        // The probe's thread starts inside the client namespace and keeps it; this one goes back.
        const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        const int client =
            open(qPrintable(QStringLiteral("/run/netns/") + lab.clientNamespace()), O_RDONLY | O_CLOEXEC);
        QVERIFY(own >= 0 && client >= 0);
        QCOMPARE(setns(client, CLONE_NEWNET), 0);
        auto probe = std::make_unique<UdpLatencyProbe>();
        QCOMPARE(setns(own, CLONE_NEWNET), 0);
        close(own), close(client);

        QMap<QString, ServerLatencyProbe::Result> results;
        // The server answers; its tunnel address is not reachable before a tunnel exists.
        probe->measure(
            {QString::fromLatin1(TunnelLab::kServerLinkAddress), QString::fromLatin1(TunnelLab::kServerTunnelAddress)},
            [&](const QString &address, ServerLatencyProbe::Result ms) { results.insert(address, ms); });
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 2, 2 * UdpLatencyProbe::kProbeTimeoutMs + 1000);
        const auto server = results.value(QString::fromLatin1(TunnelLab::kServerLinkAddress));
        QVERIFY2(server && *server >= 1 && *server < UdpLatencyProbe::kProbeTimeoutMs, qPrintable(lab.serverLog()));
        QCOMPARE(results.value(QString::fromLatin1(TunnelLab::kServerTunnelAddress)), std::nullopt);
    }
};

QTEST_MAIN(TestE2eLatency)
#include "tst_e2e_latency.moc"
