#pragma once

#include "foundation/MainQueue.h"

#include <functional>

// Keeps the tunnel the user asked for. From a connect until the user stops it (Cancel,
// Disconnect, quit: every deliberate stop passes through state 5), a tunnel that falls by
// itself (state 1) is connected again after 1, 2, 4 ... 60 s, counting the attempts, until it
// is up again. Refused credentials (state 0) end the attempts at once: trying again cannot
// help. While the machine sleeps no attempt starts; waking and network changes check the
// tunnel and, when it is gone or waiting, try at once. Main thread only; delays run on
// MainQueue::after.
class TunnelKeeper {
public:
    static constexpr int kFirstDelayMs = 1000;
    static constexpr int kMaxDelayMs = 60000;
    // A network change comes as a burst of route updates; one check once they settle.
    static constexpr int kNetworkSettleMs = 2000;

    struct Hooks {
        std::function<void()> connect;  // one attempt: fetch the profile, start the client
        std::function<bool()> tunnelUp; // the check: the client runs (state 2 or 3)
        std::function<void()> changed;  // reconnecting() or attempt() changed: redraw
        std::function<void()> wanted{}; // a tunnel is wanted (the first time: start watching)
    };

    explicit TunnelKeeper(Hooks hooks);
    ~TunnelKeeper();
    TunnelKeeper(const TunnelKeeper &) = delete;
    TunnelKeeper &operator=(const TunnelKeeper &) = delete;

    // The pause before attempt `attempt` (1-based): 1 s doubling up to kMaxDelayMs.
    static int delayBeforeAttempt(int attempt);

    bool wanted() const { return m_wanted; }
    bool reconnecting() const { return m_attempt > 0; }
    int attempt() const { return m_attempt; }
    bool asleep() const { return m_asleep; }

    void userConnected();
    // Any deliberate stop: no further attempt.
    void stopped();
    // A state reported by the engine. Returns true when it ended the attempts because the
    // server refused the credentials (the caller shows why).
    bool stateChanged(int state);
    // The attempt could not start (no profile: the network may still be down).
    void attemptFailed();

    void sleeping();
    void resumed();
    void networkChanged();

private:
    void check();
    void fell();
    void schedule(int delayMs);
    void cancelTimers();
    void notify();

    Hooks m_hooks;
    bool m_wanted = false;
    bool m_asleep = false;
    bool m_trying = false; // an attempt is under way (profile or client)
    int m_attempt = 0;
    MainQueue::TaskId m_next = 0;
    MainQueue::TaskId m_settle = 0;
};
