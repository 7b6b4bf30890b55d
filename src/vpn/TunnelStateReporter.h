#pragma once

#include "vpn/TunnelClientEnd.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

// Stores a tunnel state in the settings store and hands it to the state callback. Shared by
// the manager and the client's output handlers, which hold it weakly: handlers of a manager
// that is gone report nothing. Each launch gets a new number; the handlers of an older launch
// see that they are no longer current and report nothing either. Safe on any thread; the
// last writer wins.
class TunnelStateReporter {
public:
    using Callback = std::function<void(int state)>;

    void setCallback(Callback callback);
    Callback callback() const;

    // Stores `state`, then calls the callback (if any) on this thread.
    void report(int state) const;

    using ClientEndCallback = std::function<void(const TunnelClientEnd &end)>;
    void setClientEndCallback(ClientEndCallback callback);
    // Calls the client-end callback (if any) on this thread.
    void reportClientEnd(const TunnelClientEnd &end) const;

    // Starts a new launch and returns its number; older launches stop being current.
    std::uint64_t nextLaunch() { return ++m_launch; }
    bool isCurrent(std::uint64_t launch) const { return m_launch.load() == launch; }

private:
    mutable std::mutex m_mutex;
    Callback m_callback;
    ClientEndCallback m_clientEndCallback;
    std::atomic<std::uint64_t> m_launch{0};
};
