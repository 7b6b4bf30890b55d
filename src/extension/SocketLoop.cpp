#include "extension/SocketLoop.h"

#include "extension/AsyncSocket.h"
#include "foundation/Log.h"

#include <cerrno>
#include <cstring>
#include <future>

SocketLoop &SocketLoop::shared()
{
    static auto *loop = new SocketLoop; // leaked: the I/O thread runs until the process ends
    return *loop;
}

SocketLoop::SocketLoop()
{
    if (!m_poller.valid()) {
        OsLog("AsyncSocket")
            .fault(QStringLiteral("Cannot create the socket event poller: %1")
                       .arg(QString::fromLocal8Bit(std::strerror(errno))));
        return; // no thread: tasks run where they are posted, and nothing can be watched
    }
    std::lock_guard lock(m_mutex); // run() waits for it, so it sees m_threadId
    std::thread thread([this] { run(); });
    m_threadId = thread.get_id();
    thread.detach();
}

void SocketLoop::post(Task task)
{
    if (!m_poller.valid())
        return task();
    bool first;
    {
        std::lock_guard lock(m_mutex);
        first = m_posted.empty();
        m_posted.push_back(std::move(task));
    }
    if (first && !isLoopThread()) // else a wake-up is on its way, or the loop is awake
        m_poller.wake();
}

void SocketLoop::call(const Task &task)
{
    if (!m_poller.valid() || isLoopThread())
        return task();
    auto done = std::make_shared<std::promise<void>>(); // nothing the loop touches is on this stack
    post([task, done] { task(), done->set_value(); });
    done->get_future().wait();
}

int SocketLoop::watch(int fd, AsyncSocket *socket, std::uint32_t interest)
{
    const int error = m_poller.watch(fd, socket->connectionId(), interest);
    if (!error)
        m_sockets[socket->connectionId()] = socket;
    return error;
}

void SocketLoop::unwatch(int fd, const AsyncSocket *socket)
{
    m_poller.remove(fd);
    m_sockets.erase(socket->connectionId());
}

void SocketLoop::run()
{
    std::vector<EventPoller::Ready> ready;
    std::vector<Task> tasks;
    m_mutex.lock(); // the constructor has set m_threadId
    m_mutex.unlock();
    for (;;) {
        if (const int n = m_poller.wait(ready); n < 0) {
            OsLog("AsyncSocket")
                .fault(QStringLiteral("Socket event poller failed: %1").arg(QString::fromLocal8Bit(std::strerror(-n))));
            return;
        }
        for (const auto &[token, events] : ready) // a socket closed earlier in the round is not found
            if (const auto it = m_sockets.find(token); it != m_sockets.end())
                it->second->handleReady(events);
        for (;;) { // tasks that tasks post run in the same round
            {
                std::lock_guard lock(m_mutex);
                tasks.swap(m_posted);
            }
            if (tasks.empty())
                break;
            for (Task &task : tasks)
                task();
            tasks.clear();
        }
    }
}
