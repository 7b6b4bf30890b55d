#include "foundation/SecretQueue.h"

#include "foundation/Handback.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace SecretQueue {
namespace {

struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> jobs;
    bool running = false; // a worker thread exists
    std::thread::id worker;
};

// Never destroyed: a job may still run while the process exits.
State &state()
{
    static State *shared = new State;
    return *shared;
}

void work()
{
    State &s = state();
    std::unique_lock lock(s.mutex);
    for (;;) {
        if (s.jobs.empty() &&
            !s.wake.wait_for(lock, std::chrono::milliseconds(kIdleExitMs), [&] { return !s.jobs.empty(); })) {
            s.running = false;
            s.worker = {};
            return;
        }
        Job job = std::move(s.jobs.front());
        s.jobs.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

} // namespace

void post(Job job)
{
    State &s = state();
    std::lock_guard lock(s.mutex);
    s.jobs.push_back(std::move(job));
    if (s.running) {
        s.wake.notify_one();
        return;
    }
    s.running = true;
    std::thread worker(work);
    s.worker = worker.get_id();
    worker.detach();
}

bool isCurrentThread()
{
    State &s = state();
    std::lock_guard lock(s.mutex);
    return s.running && s.worker == std::this_thread::get_id();
}

void runAndWait(Job job)
{
    if (isCurrentThread()) {
        job();
        return;
    }
    runOnAndWait(post, std::move(job));
}

void drain()
{
    {
        State &s = state();
        std::lock_guard lock(s.mutex);
        if (!s.running)
            return;
    }
    runAndWait([] {});
}

} // namespace SecretQueue
