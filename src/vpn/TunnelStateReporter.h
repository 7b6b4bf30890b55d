#pragma once

#include <functional>
#include <mutex>

// Stores a tunnel state in the settings store and hands it to the state callback. Shared by
// the manager and the client's output handlers, which hold it weakly: handlers of a manager
// that is gone report nothing. Safe on any thread; the last writer wins.
class TunnelStateReporter {
public:
    using Callback = std::function<void(int state)>;

    void setCallback(Callback callback);
    Callback callback() const;

    // Stores `state`, then calls the callback (if any) on this thread.
    void report(int state) const;

private:
    mutable std::mutex m_mutex;
    Callback m_callback;
};
