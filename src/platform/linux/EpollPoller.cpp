#include "platform/linux/EpollPoller.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {
constexpr std::uint64_t kWakeToken = UINT64_MAX; // no socket has it
constexpr int kMaxEventsPerWait = 256;           // more wait for the next round
} // namespace

std::unique_ptr<EventPoller> EventPoller::create()
{
    const int epollFd = epoll_create1(EPOLL_CLOEXEC);
    const int wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (epollFd < 0 || wakeFd < 0) {
        const int saved = errno;
        close(epollFd);
        close(wakeFd);
        errno = saved;
        return nullptr;
    }
    auto poller = std::make_unique<EpollPoller>(epollFd, wakeFd);
    poller->watch(wakeFd, kWakeToken, Readable);
    return poller;
}

EpollPoller::~EpollPoller()
{
    close(m_wake);
    close(m_epoll);
}

int EpollPoller::watch(int fd, std::uint64_t token, std::uint32_t interest)
{
    epoll_event ev{};
    // Half-close matters only while reading; hang-up and errors are always reported.
    ev.events = ((interest & Readable) ? EPOLLIN | EPOLLRDHUP : 0u) | ((interest & Writable) ? EPOLLOUT : 0u);
    ev.data.u64 = token;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, fd, &ev) == 0)
        return 0;
    return errno == ENOENT && epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &ev) == 0 ? 0 : errno;
}

void EpollPoller::remove(int fd)
{
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, fd, nullptr);
}

int EpollPoller::wait(std::vector<Ready> &out)
{
    out.clear();
    epoll_event events[kMaxEventsPerWait];
    const int n = epoll_wait(m_epoll, events, kMaxEventsPerWait, -1);
    if (n < 0)
        return errno == EINTR ? 0 : -errno;
    for (int i = 0; i < n; ++i) {
        const std::uint32_t e = events[i].events;
        if (events[i].data.u64 == kWakeToken) {
            std::uint64_t count;
            [[maybe_unused]] auto drained = read(m_wake, &count, sizeof count);
            continue;
        }
        out.push_back({events[i].data.u64, ((e & EPOLLIN) ? Readable : 0u) | ((e & EPOLLOUT) ? Writable : 0u) |
                                               ((e & (EPOLLHUP | EPOLLERR | EPOLLRDHUP)) ? HangUp : 0u)});
    }
    return static_cast<int>(out.size());
}

void EpollPoller::wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = write(m_wake, &one, sizeof one);
}
