#pragma once

#include "extension/WorkerPool.h"

#include <deque>
#include <memory>
#include <mutex>

// Runs tasks one at a time, in submission order, on a WorkerPool thread. Each socket has one,
// so its callbacks never overlap while different sockets still run in parallel.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
public:
    static std::shared_ptr<SerialQueue> create(std::shared_ptr<WorkerPool> pool);

    void async(WorkerPool::Task task);
    const std::shared_ptr<WorkerPool> &pool() const { return m_pool; }

private:
    explicit SerialQueue(std::shared_ptr<WorkerPool> pool) : m_pool(std::move(pool)) {}
    void drain();

    // Tasks run per pool turn before yielding the thread to other queues.
    static constexpr int kTasksPerTurn = 64;

    std::shared_ptr<WorkerPool> m_pool;
    std::mutex m_mutex;
    std::deque<WorkerPool::Task> m_tasks;
    bool m_scheduled = false;
};
