#pragma once

#include "platform/EventPoller.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

class AsyncSocket;

// The bridge's I/O thread: it owns every AsyncSocket, runs their callbacks, and is "the
// delegate queue" they report on. Other threads get in only through post() or call().
class SocketLoop {
public:
    using Task = std::function<void()>;

    // The process-wide loop, started on first use and never stopped.
    static SocketLoop &shared();

    bool isLoopThread() const { return std::this_thread::get_id() == m_threadId; }
    // Any thread: runs `task` on the loop thread after everything posted before it.
    void post(Task task);
    // Off the loop thread: runs `task` there and waits for it. On it: runs it now.
    void call(const Task &task);
    // Loop thread: runs `task` once this wake-up's events and commands are handled, so work
    // gathered over a wake-up is handed on once.
    void atEndOfWakeup(Task task);

    // Loop thread: watches `fd` for `socket`. The registration's token, or 0 with an errno value.
    std::uint64_t watch(int fd, AsyncSocket *socket, std::uint32_t interest, int *error);
    void modify(int fd, std::uint64_t token, std::uint32_t interest);
    // Forgets the registration; the caller closes the descriptor afterwards.
    void unwatch(int fd, std::uint64_t token);

private:
    SocketLoop();
    void run();

    std::unique_ptr<EventPoller> m_poller;
    std::thread::id m_threadId;
    std::mutex m_mutex; // guards m_posted
    std::vector<Task> m_posted;
    // Loop thread only.
    std::vector<Task> m_atEnd;
    std::unordered_map<std::uint64_t, AsyncSocket *> m_sockets;
    std::uint64_t m_nextToken = 1;
};
