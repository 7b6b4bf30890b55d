#pragma once

#include <cstdint>
#include <functional>

class TestClock;

// The main queue is the Qt main thread. async() and after() are the only ways code schedules
// work there, so every fixed delay of the product runs on a clock that tests can drive.
//
// All functions are safe to call from any thread. Work runs on the main thread, in the order
// it becomes due (ties: in the order it was scheduled).
namespace MainQueue {

using Task = std::function<void()>;
// Identifies a pending after(); 0 is never a valid id.
using TaskId = std::uint64_t;

// Runs `task` on the main thread soon (after the current event finishes).
void async(Task task);

// Runs `task` on the main thread `ms` milliseconds from now.
TaskId after(int ms, Task task);

// Forgets a pending after(); harmless when it already ran or never existed.
void cancel(TaskId id);

// True on the main thread (the thread the QCoreApplication lives in).
bool isMainThread();

// Installs a test clock: from now on after() waits on `clock` instead of real time.
// Pass nullptr to go back to real time. Pending work of the old clock is dropped.
void setTestClock(TestClock *clock);

} // namespace MainQueue

// A clock that only moves when a test moves it. Work is still run on the main thread by
// advance(), which the test calls from there.
class TestClock {
public:
    TestClock();
    ~TestClock();
    TestClock(const TestClock &) = delete;
    TestClock &operator=(const TestClock &) = delete;

    // Milliseconds since the clock was made.
    std::int64_t now() const;
    // Moves time forward by `ms`, running every task that falls due on the way (including
    // tasks those tasks schedule within the window), then runs pending async() work.
    void advance(int ms);
    // Number of after() tasks not yet run.
    int pendingCount() const;

private:
    friend MainQueue::TaskId MainQueue::after(int, MainQueue::Task);
    friend void MainQueue::cancel(MainQueue::TaskId);
    struct Impl;
    Impl *d;
    MainQueue::TaskId schedule(int ms, MainQueue::Task task);
    void cancel(MainQueue::TaskId id);
};

// A repeating main-queue timer on the same clock (session timer, refresh timers).
class MainTimer {
public:
    MainTimer() = default;
    ~MainTimer();
    MainTimer(const MainTimer &) = delete;
    MainTimer &operator=(const MainTimer &) = delete;

    // (Re)starts: `tick` runs every `intervalMs` until stop() or destruction. Main thread only.
    void start(int intervalMs, MainQueue::Task tick);
    void stop();
    bool isActive() const { return m_id != 0; }

private:
    void arm();
    int m_interval = 0;
    MainQueue::Task m_tick;
    MainQueue::TaskId m_id = 0;
};
