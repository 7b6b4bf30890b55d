#include "vpn/TunnelStateReporter.h"

#include "foundation/AppStorageManager.h"

void TunnelStateReporter::setCallback(Callback callback)
{
    std::lock_guard lock(m_mutex);
    m_callback = std::move(callback);
}

TunnelStateReporter::Callback TunnelStateReporter::callback() const
{
    std::lock_guard lock(m_mutex);
    return m_callback;
}

void TunnelStateReporter::report(int state) const
{
    AppStorageManager::sharedManager().storeVPNStatus(state);
    // Called outside the lock: the callback may set a new callback.
    if (const Callback callback = this->callback())
        callback(state);
}

void TunnelStateReporter::setClientEndCallback(ClientEndCallback callback)
{
    std::lock_guard lock(m_mutex);
    m_clientEndCallback = std::move(callback);
}

void TunnelStateReporter::reportClientEnd(const TunnelClientEnd &end) const
{
    ClientEndCallback callback;
    {
        std::lock_guard lock(m_mutex);
        callback = m_clientEndCallback;
    }
    if (callback)
        callback(end);
}
