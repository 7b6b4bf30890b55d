#pragma once

#include "foundation/WorkerThread.h"
#include "vpn/ServerLatencyProbe.h"

// Latency of OpenVPN servers over UDP, their protocol: the time from the opener to the
// server's reply (OpenVpnPing), on a thread of its own. Needs no privileges. A refusal (ICMP
// port unreachable), no reply within the timeout, or a name that does not resolve gives no
// value. Probes past the parallel limit wait their turn.
class UdpLatencyProbe : public ServerLatencyProbe {
public:
    // The catalogue names only the server's host; its VPN port is OpenVPN's own.
    static constexpr quint16 kOpenVpnPort = 1194;
    // A few at once: a full catalogue is measured quickly without a burst on a slow link.
    static constexpr int kMaxParallelProbes = 4;
    // A server slower than this is as good as unreachable for a tunnel.
    static constexpr int kProbeTimeoutMs = 2000;

    explicit UdpLatencyProbe(quint16 port = kOpenVpnPort, int timeoutMs = kProbeTimeoutMs);
    ~UdpLatencyProbe() override;

    void measure(const QStringList &addresses, Each each) override;

private:
    class Worker;
    WorkerThread m_thread;
    Worker *m_worker = nullptr; // lives on m_thread
};
