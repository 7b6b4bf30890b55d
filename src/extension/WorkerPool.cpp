#include "extension/WorkerPool.h"

#include <algorithm>
#include <utility>

namespace {
// The task running on this thread: its pool, what it queued there and what it left for its
// end. Unset off the pool.
struct RunningTask {
    WorkerPool *pool = nullptr;
    std::vector<WorkerPool::Task> queued;
    std::vector<WorkerPool::Task> endOfTask;
};
thread_local RunningTask *t_running = nullptr;
} // namespace

WorkerPool::WorkerPool(int threadCount)
{
    for (int i = 0; i < std::max(1, threadCount); ++i)
        m_threads.emplace_back([this] { run(); });
}

WorkerPool::~WorkerPool()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        m_tasks.clear();
    }
    m_wake.notify_all();
    for (auto &thread : m_threads)
        thread.join();
}

void WorkerPool::async(Task task)
{
    if (t_running && t_running->pool == this) {
        t_running->queued.push_back(std::move(task));
        return;
    }
    {
        std::lock_guard lock(m_mutex);
        if (m_stopping)
            return;
        m_tasks.push_back(std::move(task));
    }
    m_wake.notify_one();
}

bool WorkerPool::atEndOfTask(Task work)
{
    if (!t_running)
        return false;
    t_running->endOfTask.push_back(std::move(work));
    return true;
}

void WorkerPool::run()
{
    RunningTask running{this, {}, {}};
    t_running = &running;
    for (;;) {
        Task task;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || !m_tasks.empty(); });
            if (m_stopping)
                return;
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        task();
        // End-of-task work may leave more of itself; all of it runs before anything the task
        // queued can start on another thread.
        for (std::size_t i = 0; i < running.endOfTask.size(); ++i)
            std::exchange(running.endOfTask[i], nullptr)();
        running.endOfTask.clear();
        if (running.queued.empty())
            continue;
        const std::size_t count = running.queued.size();
        {
            std::lock_guard lock(m_mutex);
            if (!m_stopping)
                for (Task &queued : running.queued)
                    m_tasks.push_back(std::move(queued));
        }
        running.queued.clear();
        if (count == 1)
            m_wake.notify_one();
        else
            m_wake.notify_all();
    }
}

std::shared_ptr<WorkerPool> WorkerPool::globalDefault()
{
    // Deliberately leaked: see the header.
    static auto *pool = new std::shared_ptr<WorkerPool>(
        std::make_shared<WorkerPool>(static_cast<int>(std::max(2u, std::thread::hardware_concurrency()))));
    return *pool;
}
