#include "platform/EventPoller.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {
constexpr std::uint64_t kWakeToken = UINT64_MAX; // no socket has it
constexpr int kMaxEventsPerWait = 256;           // more wait for the next round
} // namespace

EventPoller::EventPoller() : m_fd(epoll_create1(EPOLL_CLOEXEC)), m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    if (valid())
        watch(m_wake, kWakeToken, Readable);
}

EventPoller::~EventPoller()
{
    close(m_wake);
    close(m_fd);
}

int EventPoller::watch(int fd, std::uint64_t token, std::uint32_t interest)
{
    epoll_event ev{};
    // Half-close matters only while reading; hang-up and errors are always reported.
    ev.events = ((interest & Readable) ? EPOLLIN | EPOLLRDHUP : 0u) | ((interest & Writable) ? EPOLLOUT : 0u);
    ev.data.u64 = token;
    const bool ok = epoll_ctl(m_fd, EPOLL_CTL_MOD, fd, &ev) == 0 ||
                    (errno == ENOENT && epoll_ctl(m_fd, EPOLL_CTL_ADD, fd, &ev) == 0);
    return ok ? 0 : errno;
}

void EventPoller::remove(int fd)
{
    epoll_ctl(m_fd, EPOLL_CTL_DEL, fd, nullptr);
}

int EventPoller::wait(std::vector<Ready> &out)
{
    out.clear();
    epoll_event events[kMaxEventsPerWait];
    const int n = epoll_wait(m_fd, events, kMaxEventsPerWait, -1);
    if (n < 0)
        return errno == EINTR ? 0 : -errno;
    for (int i = 0; i < n; ++i) {
        const std::uint32_t e = events[i].events;
        if (events[i].data.u64 == kWakeToken) {
            std::uint64_t count;
            [[maybe_unused]] auto drained = read(m_wake, &count, sizeof count);
            continue;
        }
        out.emplace_back(std::uint64_t(events[i].data.u64),
                         ((e & EPOLLIN) ? Readable : 0u) | ((e & EPOLLOUT) ? Writable : 0u) |
                             ((e & (EPOLLHUP | EPOLLERR | EPOLLRDHUP)) ? HangUp : 0u));
    }
    return static_cast<int>(out.size());
}

void EventPoller::wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = write(m_wake, &one, sizeof one);
}
