#include "extension/SerialQueue.h"

std::shared_ptr<SerialQueue> SerialQueue::create(std::shared_ptr<WorkerPool> pool)
{
    return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(pool)));
}

void SerialQueue::async(WorkerPool::Task task)
{
    bool schedule = false;
    {
        std::lock_guard lock(m_mutex);
        m_tasks.push_back(std::move(task));
        schedule = !m_scheduled;
        m_scheduled = true;
    }
    if (schedule)
        m_pool->async([self = shared_from_this()] { self->drain(); });
}

void SerialQueue::drain()
{
    for (int i = 0; i < kTasksPerTurn; ++i) {
        WorkerPool::Task task;
        {
            std::lock_guard lock(m_mutex);
            if (m_tasks.empty()) {
                m_scheduled = false;
                return;
            }
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        task();
    }
    // Still busy: go to the back of the pool so other sockets get a turn.
    m_pool->async([self = shared_from_this()] { self->drain(); });
}
