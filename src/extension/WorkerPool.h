#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// A concurrent queue: tasks run on a fixed set of threads in no guaranteed order relative to
// each other. The socket layer delivers its callbacks here, each socket draining its own
// queue of them so that per-socket order holds.
class WorkerPool {
public:
    using Task = std::function<void()>;

    explicit WorkerPool(int threadCount);
    // Waits for running tasks, drops queued ones, joins the threads.
    ~WorkerPool();
    WorkerPool(const WorkerPool &) = delete;
    WorkerPool &operator=(const WorkerPool &) = delete;

    // From one of this pool's own tasks, the new task is held until that task (and its
    // end-of-task work) is done: a task never waits on one it queued.
    void async(Task task);
    int threadCount() const { return static_cast<int>(m_threads.size()); }

    // On a pool thread: runs `work` on this thread right after the task now running returns,
    // so a task can gather what it produces and hand it on once. False elsewhere.
    static bool atEndOfTask(Task work);

    // The process-wide default-priority pool (never destroyed, so callbacks still in flight
    // at exit never meet a dead pool).
    static std::shared_ptr<WorkerPool> globalDefault();

private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Task> m_tasks;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;
};
