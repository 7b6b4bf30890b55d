#pragma once

#include <cstdint>
#include <utility>
#include <vector>

// Level-triggered readiness of descriptors for the socket I/O thread; one file per platform
// (epoll, kqueue). wake() may be called from any thread, the rest only from the waiting one.
class EventPoller {
public:
    enum Interest : std::uint32_t { Readable = 1, Writable = 2, HangUp = 4 /* reported only */ };
    using Ready = std::pair<std::uint64_t, std::uint32_t>; // watch()'s token, what happened

    EventPoller(); // valid() false, errno set, when the kernel refuses one
    ~EventPoller();
    EventPoller(const EventPoller &) = delete;
    EventPoller &operator=(const EventPoller &) = delete;
    bool valid() const { return m_fd >= 0 && m_wake >= 0; }

    // Starts watching `fd`, or changes what for. 0 or an errno value.
    int watch(int fd, std::uint64_t token, std::uint32_t interest);
    void remove(int fd); // before the descriptor is closed
    // Blocks until something is ready or wake() is called; fills `out`. -errno on failure.
    int wait(std::vector<Ready> &out);
    void wake();

private:
    int m_fd = -1, m_wake = -1;
};
