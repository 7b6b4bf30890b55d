#pragma once

#include <cstdint>
#include <memory>
#include <vector>

// Readiness of non-blocking descriptors (epoll on Linux, kqueue on macOS) for the socket
// layer's I/O thread. Level-triggered. wake() may be called from any thread, the rest only
// from the thread that waits.
class EventPoller {
public:
    enum Interest : std::uint32_t {
        Readable = 1u << 0,
        Writable = 1u << 1,
        HangUp = 1u << 2, // reported only: the peer hung up or the descriptor is in error
    };
    struct Ready {
        std::uint64_t token; // what watch() was given
        std::uint32_t events;
    };

    virtual ~EventPoller() = default;
    // Starts watching `fd`, or changes what it is watched for. 0 or an errno value.
    virtual int watch(int fd, std::uint64_t token, std::uint32_t interest) = 0;
    // Call before closing the descriptor.
    virtual void remove(int fd) = 0;
    // Blocks until something is ready or wake() is called; fills `out`. -errno on failure.
    virtual int wait(std::vector<Ready> &out) = 0;
    virtual void wake() = 0;

    // The build's poller; nullptr (errno set) when the kernel refuses one.
    static std::unique_ptr<EventPoller> create();
};
