#include "extension/SocketLoop.h"

#include "extension/AsyncSocket.h"
#include "foundation/Log.h"

#include <cerrno>
#include <cstring>
#include <future>
#include <utility>

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
        return; // no thread: tasks run where they are posted, sockets cannot be watched
    }
    std::lock_guard lock(m_mutex); // run() starts by taking it, so it sees m_threadId
    std::thread thread([this] { run(); });
    m_threadId = thread.get_id();
    thread.detach();
}

void SocketLoop::post(Task task)
{
    if (!m_poller)
        return task();
    bool wasEmpty;
    {
        std::lock_guard lock(m_mutex);
        wasEmpty = m_posted.empty();
        m_posted.push_back(std::move(task));
    }
    if (wasEmpty) // otherwise a wake-up is already on its way
        m_poller->wake();
}

void SocketLoop::call(const Task &task)
{
    if (!m_poller || isLoopThread())
        return task();
    std::promise<void> done;
    post([&] {
        task();
        done.set_value();
    });
    done.get_future().wait();
}

void SocketLoop::atEndOfWakeup(Task task)
{
    m_atEnd.push_back(std::move(task));
}

std::uint64_t SocketLoop::watch(int fd, AsyncSocket *socket, std::uint32_t interest, int *error)
{
    if (!m_poller) {
        *error = ENOSYS;
        return 0;
    }
    const std::uint64_t token = m_nextToken++;
    if ((*error = m_poller->add(fd, token, interest)))
        return 0;
    m_sockets.emplace(token, socket);
    return token;
}

void SocketLoop::modify(int fd, std::uint64_t token, std::uint32_t interest)
{
    m_poller->modify(fd, token, interest);
}

void SocketLoop::unwatch(int fd, std::uint64_t token)
{
    m_poller->remove(fd);
    m_sockets.erase(token);
}

void SocketLoop::run()
{
    std::vector<EventPoller::Ready> ready;
    std::vector<Task> tasks;
    {
        std::lock_guard lock(m_mutex);
    }
    for (;;) {
        if (const int n = m_poller->wait(ready); n < 0) {
            OsLog("AsyncSocket")
                .fault(QStringLiteral("Socket event poller failed: %1").arg(QString::fromLocal8Bit(std::strerror(-n))));
            return;
        }
        for (const auto &r : ready) {
            // A socket closed by an earlier entry of this round is gone from the map.
            if (auto it = m_sockets.find(r.token); it != m_sockets.end())
                it->second->handleReady(r.events);
        }
        {
            std::lock_guard lock(m_mutex);
            tasks.swap(m_posted);
        }
        for (Task &task : tasks)
            task();
        tasks.clear();
        // Tasks run here may queue more for the end of this same wake-up.
        for (std::size_t i = 0; i < m_atEnd.size(); ++i)
            std::exchange(m_atEnd[i], {})();
        m_atEnd.clear();
    }
}
