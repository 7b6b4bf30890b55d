#include "extension/SocketLoop.h"

#include "extension/AsyncSocket.h"
#include "foundation/Log.h"

#include <cerrno>
#include <cstring>
#include <vector>

SocketLoop &SocketLoop::shared()
{
    // Deliberately leaked: the I/O thread runs until the process ends.
    static auto *loop = new SocketLoop;
    return *loop;
}

SocketLoop::SocketLoop() : m_poller(EventPoller::create())
{
    if (!m_poller) {
        OsLog("AsyncSocket")
            .fault(QStringLiteral("Cannot create the socket event poller: %1")
                       .arg(QString::fromLocal8Bit(std::strerror(errno))));
        return;
    }
    m_thread = std::thread([this] { run(); });
    m_thread.detach();
}

std::uint64_t SocketLoop::add(int fd, const std::shared_ptr<AsyncSocket> &socket, std::uint32_t interest, int *error)
{
    if (!m_poller) {
        *error = ENOSYS;
        return 0;
    }
    std::uint64_t token;
    {
        std::lock_guard lock(m_mutex);
        token = m_nextToken++;
        m_sockets.emplace(token, socket);
    }
    if (const int rc = m_poller->add(fd, token, interest)) {
        std::lock_guard lock(m_mutex);
        m_sockets.erase(token);
        *error = rc;
        return 0;
    }
    return token;
}

void SocketLoop::modify(int fd, std::uint64_t token, std::uint32_t interest)
{
    if (m_poller)
        m_poller->modify(fd, token, interest);
}

void SocketLoop::remove(int fd, std::uint64_t token)
{
    if (!m_poller)
        return;
    m_poller->remove(fd);
    std::lock_guard lock(m_mutex);
    m_sockets.erase(token);
}

void SocketLoop::run()
{
    std::vector<EventPoller::Ready> ready;
    std::vector<std::pair<std::shared_ptr<AsyncSocket>, std::uint32_t>> batch;
    for (;;) {
        const int n = m_poller->wait(ready, -1);
        if (n < 0) {
            OsLog("AsyncSocket")
                .fault(QStringLiteral("Socket event poller failed: %1").arg(QString::fromLocal8Bit(std::strerror(-n))));
            return;
        }
        batch.clear();
        {
            std::lock_guard lock(m_mutex);
            for (const auto &r : ready) {
                auto it = m_sockets.find(r.token);
                if (it == m_sockets.end())
                    continue; // removed while the event was on its way
                if (auto socket = it->second.lock())
                    batch.emplace_back(std::move(socket), r.events);
            }
        }
        for (auto &[socket, events] : batch)
            socket->handleReady(events);
        batch.clear(); // last references may die here, outside the lock
    }
}
