#include "ui/ServerLatencyMonitor.h"

ServerLatencyMonitor::ServerLatencyMonitor(std::shared_ptr<ServerLatencyProbe> probe, std::function<void()> changed)
    : m_probe(std::move(probe)), m_changed(std::move(changed))
{
}

ServerLatencyMonitor::~ServerLatencyMonitor()
{
    *m_alive = false; // answers still on their way are dropped
    MainQueue::cancel(m_staleAt);
}

void ServerLatencyMonitor::setShown(bool shown)
{
    m_shown = shown;
    refreshIfDue();
}

void ServerLatencyMonitor::setAddresses(const QStringList &addresses)
{
    m_addresses = addresses;
    m_addresses.removeAll(QString());
    m_addresses.removeDuplicates();
    refreshIfDue();
}

void ServerLatencyMonitor::refreshIfDue()
{
    if (!m_probe || !m_shown)
        return;
    QStringList due;
    for (const QString &address : std::as_const(m_addresses))
        if (!m_inFlight.contains(address) && (m_stale || !m_measured.contains(address)))
            due.append(address);
    if (due.isEmpty())
        return;
    if (m_stale) {
        m_stale = false;
        m_staleAt = MainQueue::after(kRefreshIntervalMs, [this] {
            m_staleAt = 0;
            m_stale = true;
            refreshIfDue();
        });
    }
    for (const QString &address : std::as_const(due))
        m_inFlight.insert(address);
    m_probe->measure(due, [this, alive = m_alive](const QString &address, ServerLatencyProbe::Result ms) {
        if (!*alive)
            return;
        m_inFlight.remove(address);
        m_measured.insert(address);
        m_results.insert(address, ms);
        if (m_changed)
            m_changed();
    });
}
