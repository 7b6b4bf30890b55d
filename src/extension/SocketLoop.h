#pragma once

#include "platform/EventPoller.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

class AsyncSocket;

// The socket layer's I/O thread: one poller, one thread, every AsyncSocket registered with it.
// Readiness is handed to the socket on this thread; the socket posts its callbacks onwards.
// Sockets are held weakly so a registration never keeps a socket alive.
class SocketLoop {
public:
    // The process-wide loop, started on first use and never stopped.
    static SocketLoop &shared();

    // Watches `fd` for `socket`. Returns the registration's token, or 0 with the errno value in
    // `error` when the poller refuses.
    std::uint64_t add(int fd, const std::shared_ptr<AsyncSocket> &socket, std::uint32_t interest, int *error);
    void modify(int fd, std::uint64_t token, std::uint32_t interest);
    // Forgets the registration; the caller closes the descriptor afterwards.
    void remove(int fd, std::uint64_t token);

private:
    SocketLoop();
    void run();

    std::unique_ptr<EventPoller> m_poller;
    std::mutex m_mutex;
    std::unordered_map<std::uint64_t, std::weak_ptr<AsyncSocket>> m_sockets;
    std::uint64_t m_nextToken = 1;
    std::thread m_thread;
};
