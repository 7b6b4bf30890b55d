#pragma once

#include "foundation/MainQueue.h"
#include "vpn/ServerLatencyProbe.h"

#include <QHash>
#include <QSet>

#include <functional>
#include <memory>

// The latency shown beside each cluster. Servers are measured when the list comes into view,
// all of them at most once per refresh interval (a list left open is refreshed at that pace);
// a server new to the list is measured at once. Old values stay until new ones arrive.
class ServerLatencyMonitor {
public:
    // Often enough to follow a changing network, rarely enough to stay out of the way.
    static constexpr int kRefreshIntervalMs = 3 * 60 * 1000;

    // Without a probe nothing is measured. `changed` runs after each new value.
    ServerLatencyMonitor(std::shared_ptr<ServerLatencyProbe> probe, std::function<void()> changed);
    ~ServerLatencyMonitor();
    ServerLatencyMonitor(const ServerLatencyMonitor &) = delete;
    ServerLatencyMonitor &operator=(const ServerLatencyMonitor &) = delete;

    void setShown(bool shown);
    void setAddresses(const QStringList &addresses);
    // Nothing while not measured yet, or when the server did not answer.
    ServerLatencyProbe::Result latency(const QString &address) const { return m_results.value(address); }

private:
    void refreshIfDue();

    std::shared_ptr<ServerLatencyProbe> m_probe;
    std::function<void()> m_changed;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
    QStringList m_addresses;
    QHash<QString, ServerLatencyProbe::Result> m_results;
    QSet<QString> m_measured; // answered or not
    QSet<QString> m_inFlight;
    bool m_shown = false;
    bool m_stale = true;
    MainQueue::TaskId m_staleAt = 0;
};
