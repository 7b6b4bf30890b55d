#pragma once

#include "platform/EventPoller.h"

// EventPoller over epoll, woken through an eventfd.
class EpollPoller : public EventPoller {
public:
    EpollPoller(int epollFd, int wakeFd);
    ~EpollPoller() override;
    EpollPoller(const EpollPoller &) = delete;
    EpollPoller &operator=(const EpollPoller &) = delete;

    int add(int fd, std::uint64_t token, std::uint32_t interest) override;
    int modify(int fd, std::uint64_t token, std::uint32_t interest) override;
    void remove(int fd) override;
    int wait(std::vector<Ready> &out) override;
    void wake() override;

private:
    int control(int op, int fd, std::uint64_t token, std::uint32_t interest);

    int m_epoll;
    int m_wake;
};
