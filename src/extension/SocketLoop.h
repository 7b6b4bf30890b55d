#pragma once

#include "platform/EventPoller.h"

#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>

class AsyncSocket;

// The bridge's I/O thread: it owns every AsyncSocket, runs their callbacks, and is "the
// delegate queue" they report on. Other threads get in only through post() or call().
class SocketLoop {
public:
    using Task = std::function<void()>;

    static SocketLoop &shared(); // started on first use, never stopped

    bool isLoopThread() const { return std::this_thread::get_id() == m_threadId; }
    // Runs `task` on the loop thread after everything posted before it (from the loop thread
    // itself: once this round's socket events are handled).
    void post(Task task);
    // Runs `task` on the loop thread and waits for it (at once when already there).
    void call(const Task &task);

    // Loop thread: watches `fd` for `socket`, or changes what for. 0 or an errno value.
    int watch(int fd, AsyncSocket *socket, std::uint32_t interest);
    void unwatch(int fd, const AsyncSocket *socket); // before the descriptor is closed

private:
    SocketLoop();
    void run();

    EventPoller m_poller;
    std::thread::id m_threadId;
    std::mutex m_mutex; // guards m_posted
    std::vector<Task> m_posted;
    std::unordered_map<std::uint64_t, AsyncSocket *> m_sockets; // by connection id; loop thread only
};
