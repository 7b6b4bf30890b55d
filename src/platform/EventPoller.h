#pragma once

#include <cstdint>
#include <memory>
#include <vector>

// Readiness notification for non-blocking file descriptors (epoll on Linux, kqueue on macOS).
// The socket layer runs one of these on its I/O thread. Level-triggered: a descriptor keeps
// being reported while it stays ready.
//
// add/modify/remove/wake may be called from any thread; wait() from one thread only.
class EventPoller {
public:
    enum Interest : std::uint32_t {
        Readable = 1u << 0,
        Writable = 1u << 1,
        // Reported only: the peer hung up or the descriptor is in error.
        HangUp = 1u << 2,
    };

    struct Ready {
        std::uint64_t token; // what add() was given for the descriptor
        std::uint32_t events;
    };

    virtual ~EventPoller() = default;

    // Starts watching `fd`; `token` comes back in Ready so a reused descriptor number can
    // never be mistaken for its previous owner. Returns 0 or an errno value.
    virtual int add(int fd, std::uint64_t token, std::uint32_t interest) = 0;
    virtual int modify(int fd, std::uint64_t token, std::uint32_t interest) = 0;
    // Stops watching; call before closing the descriptor.
    virtual void remove(int fd) = 0;
    // Blocks until something is ready, wake() is called or `timeoutMs` passes (-1: no limit).
    // Fills `out` (cleared first). Returns the number of entries or -errno.
    virtual int wait(std::vector<Ready> &out, int timeoutMs) = 0;
    // Makes a blocked wait() return early.
    virtual void wake() = 0;

    // The build's poller; nullptr (with errno set) when the kernel refuses one.
    static std::unique_ptr<EventPoller> create();
};
