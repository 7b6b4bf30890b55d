#include "platform/linux/EpollPoller.h"

#include <cerrno>
#include <cstdint>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {
// The wake eventfd is registered under a token no socket can have.
constexpr std::uint64_t kWakeToken = UINT64_MAX;
// Events fetched per wait(); more simply wait for the next round.
constexpr int kMaxEventsPerWait = 256;

std::uint32_t toEpoll(std::uint32_t interest)
{
    std::uint32_t events = 0;
    // Half-close is only of interest while reading; hang-up and errors are always reported.
    if (interest & EventPoller::Readable)
        events |= EPOLLIN | EPOLLRDHUP;
    if (interest & EventPoller::Writable)
        events |= EPOLLOUT;
    return events;
}
} // namespace

std::unique_ptr<EventPoller> EventPoller::create()
{
    const int epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0)
        return nullptr;
    const int wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        const int saved = errno;
        close(epollFd);
        errno = saved;
        return nullptr;
    }
    auto poller = std::make_unique<EpollPoller>(epollFd, wakeFd);
    poller->add(wakeFd, kWakeToken, Readable);
    return poller;
}

EpollPoller::EpollPoller(int epollFd, int wakeFd) : m_epoll(epollFd), m_wake(wakeFd) {}

EpollPoller::~EpollPoller()
{
    close(m_wake);
    close(m_epoll);
}

int EpollPoller::control(int op, int fd, std::uint64_t token, std::uint32_t interest)
{
    epoll_event ev{};
    ev.events = toEpoll(interest);
    ev.data.u64 = token;
    return epoll_ctl(m_epoll, op, fd, &ev) == 0 ? 0 : errno;
}

int EpollPoller::add(int fd, std::uint64_t token, std::uint32_t interest)
{
    return control(EPOLL_CTL_ADD, fd, token, interest);
}

int EpollPoller::modify(int fd, std::uint64_t token, std::uint32_t interest)
{
    return control(EPOLL_CTL_MOD, fd, token, interest);
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
        if (events[i].data.u64 == kWakeToken) {
            std::uint64_t drained;
            while (read(m_wake, &drained, sizeof drained) > 0) {
            }
            continue;
        }
        std::uint32_t ready = 0;
        if (events[i].events & EPOLLIN)
            ready |= Readable;
        if (events[i].events & EPOLLOUT)
            ready |= Writable;
        if (events[i].events & (EPOLLHUP | EPOLLERR | EPOLLRDHUP))
            ready |= HangUp;
        out.push_back({events[i].data.u64, ready});
    }
    return static_cast<int>(out.size());
}

void EpollPoller::wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = write(m_wake, &one, sizeof one);
}
