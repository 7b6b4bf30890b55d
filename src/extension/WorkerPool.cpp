#include "extension/WorkerPool.h"

#include <algorithm>

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
    {
        std::lock_guard lock(m_mutex);
        if (m_stopping)
            return;
        m_tasks.push_back(std::move(task));
    }
    m_wake.notify_one();
}

void WorkerPool::run()
{
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
    }
}

std::shared_ptr<WorkerPool> WorkerPool::globalDefault()
{
    // Deliberately leaked: see the header.
    static auto *pool = new std::shared_ptr<WorkerPool>(
        std::make_shared<WorkerPool>(static_cast<int>(std::max(2u, std::thread::hardware_concurrency()))));
    return *pool;
}
