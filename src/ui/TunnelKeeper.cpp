#include "ui/TunnelKeeper.h"

#include "foundation/Log.h"
#include "vpn/VpnState.h"

#include <algorithm>
#include <utility>

namespace {
void log(const QString &text)
{
    NQLog::line(QStringLiteral("|TunnelKeeper| ") + text);
}
} // namespace

TunnelKeeper::TunnelKeeper(Hooks hooks) : m_hooks(std::move(hooks)) {}

TunnelKeeper::~TunnelKeeper()
{
    cancelTimers();
}

int TunnelKeeper::delayBeforeAttempt(int attempt)
{
    // 1 s << 6 already passes the cap; the shift never overflows.
    const int shift = std::clamp(attempt - 1, 0, 6);
    return std::min(kFirstDelayMs << shift, kMaxDelayMs);
}

void TunnelKeeper::userConnected()
{
    cancelTimers();
    m_wanted = true;
    m_trying = true;
    m_attempt = 0;
    if (m_hooks.wanted)
        m_hooks.wanted();
}

void TunnelKeeper::stopped()
{
    const bool was = m_wanted || reconnecting();
    cancelTimers();
    m_wanted = false;
    m_trying = false;
    m_attempt = 0;
    if (was) {
        log(QStringLiteral("stopped"));
        notify();
    }
}

bool TunnelKeeper::stateChanged(int state)
{
    switch (state) {
    case VpnStateConnected:
        if (reconnecting())
            log(QStringLiteral("reconnected after %1 attempt(s)").arg(m_attempt));
        m_trying = false;
        if (std::exchange(m_attempt, 0) > 0)
            notify();
        return false;
    case VpnStateDisconnecting:
        stopped();
        return false;
    case VpnStateAuthFailed: {
        const bool ended = m_wanted;
        if (ended)
            log(QStringLiteral("credentials refused: no further attempt"));
        stopped();
        return ended;
    }
    case VpnStateDisconnected:
        if (m_wanted)
            fell();
        return false;
    default:
        return false;
    }
}

void TunnelKeeper::attemptFailed()
{
    if (m_wanted)
        fell();
}

void TunnelKeeper::fell()
{
    m_trying = false;
    ++m_attempt;
    log(QStringLiteral("tunnel down: attempt %1").arg(m_attempt));
    notify();
    if (!m_asleep)
        schedule(delayBeforeAttempt(m_attempt));
}

void TunnelKeeper::schedule(int delayMs)
{
    if (m_next)
        MainQueue::cancel(m_next);
    m_next = MainQueue::after(delayMs, [this] {
        m_next = 0;
        if (!m_wanted || m_asleep)
            return;
        log(QStringLiteral("reconnecting, attempt %1").arg(m_attempt));
        m_trying = true;
        m_hooks.connect();
    });
}

void TunnelKeeper::sleeping()
{
    log(QStringLiteral("the machine goes to sleep"));
    m_asleep = true;
    if (m_next) {
        MainQueue::cancel(m_next);
        m_next = 0;
    }
}

void TunnelKeeper::resumed()
{
    log(QStringLiteral("the machine woke up"));
    m_asleep = false;
    check();
}

void TunnelKeeper::networkChanged()
{
    if (!m_wanted || m_settle)
        return;
    m_settle = MainQueue::after(kNetworkSettleMs, [this] {
        m_settle = 0;
        log(QStringLiteral("the network changed"));
        check();
    });
}

void TunnelKeeper::check()
{
    if (!m_wanted || m_trying)
        return;
    if (reconnecting()) {
        // Waiting for the next attempt: the network that was missing may be back.
        schedule(0);
        return;
    }
    if (m_hooks.tunnelUp()) {
        log(QStringLiteral("tunnel checked: still up"));
        return;
    }
    fell();
}

void TunnelKeeper::cancelTimers()
{
    for (MainQueue::TaskId *id : {&m_next, &m_settle})
        if (*id) {
            MainQueue::cancel(*id);
            *id = 0;
        }
}

void TunnelKeeper::notify()
{
    if (m_hooks.changed)
        m_hooks.changed();
}
