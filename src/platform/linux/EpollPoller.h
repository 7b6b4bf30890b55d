#pragma once

#include "platform/EventPoller.h"

// EventPoller over epoll, woken through an eventfd.
class EpollPoller : public EventPoller {
public:
    EpollPoller(int epollFd, int wakeFd) : m_epoll(epollFd), m_wake(wakeFd) {}
    ~EpollPoller() override;
    EpollPoller(const EpollPoller &) = delete;
    EpollPoller &operator=(const EpollPoller &) = delete;

    int watch(int fd, std::uint64_t token, std::uint32_t interest) override;
    void remove(int fd) override;
    int wait(std::vector<Ready> &out) override;
    void wake() override;

private:
    int m_epoll;
    int m_wake;
};
