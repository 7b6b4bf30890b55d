#include "foundation/MainQueue.h"

#include <QCoreApplication>
#include <QHash>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

namespace {
std::mutex g_mutex;
TestClock *g_clock = nullptr;
std::atomic<MainQueue::TaskId> g_nextId{1};
// Real-time tasks waiting in a QTimer, by id, so cancel() can drop them.
QHash<MainQueue::TaskId, QPointer<QTimer>> g_timers;

QObject *mainContext()
{
    return QCoreApplication::instance();
}

// Tasks cross threads through this queue rather than inside Qt's events, so the hand-off is a
// lock the thread sanitizer can see. Each posted event carries no data and runs exactly one
// task; both queues are first in, first out, so the n-th event runs the n-th task.
std::mutex g_handoffMutex;
std::deque<std::function<void()>> g_handoff;
QObject *g_watchedContext = nullptr; // whose destruction drops what is still queued

std::function<void()> takeHandedOff()
{
    std::lock_guard lock(g_handoffMutex);
    if (g_handoff.empty())
        return {};
    std::function<void()> fn = std::move(g_handoff.front());
    g_handoff.pop_front();
    return fn;
}

// Qt drops the events of a destroyed application; drop their tasks with them, outside the lock,
// since destroying a task may release a thread waiting for it.
void dropHandedOff()
{
    std::deque<std::function<void()>> dropped;
    std::lock_guard lock(g_handoffMutex);
    dropped.swap(g_handoff);
    g_watchedContext = nullptr;
}

void postToMain(std::function<void()> fn)
{
    QObject *context = mainContext();
    if (!context)
        return; // no application object: nothing can run any more
    bool watch;
    {
        std::lock_guard lock(g_handoffMutex);
        g_handoff.push_back(std::move(fn));
        watch = std::exchange(g_watchedContext, context) != context;
    }
    if (watch)
        QObject::connect(context, &QObject::destroyed, [] { dropHandedOff(); });
    QMetaObject::invokeMethod(
        context,
        [] {
            if (auto task = takeHandedOff())
                task();
        },
        Qt::QueuedConnection);
}
} // namespace

struct TestClock::Impl {
    mutable std::mutex mutex;
    std::int64_t now = 0;
    std::uint64_t sequence = 0;
    // Keyed by (due time, sequence) so ties run in scheduling order.
    std::map<std::pair<std::int64_t, std::uint64_t>, std::pair<MainQueue::TaskId, MainQueue::Task>> tasks;
};

TestClock::TestClock() : d(new Impl) {}

TestClock::~TestClock()
{
    {
        std::lock_guard lock(g_mutex);
        if (g_clock == this)
            g_clock = nullptr;
    }
    delete d;
}

std::int64_t TestClock::now() const
{
    std::lock_guard lock(d->mutex);
    return d->now;
}

int TestClock::pendingCount() const
{
    std::lock_guard lock(d->mutex);
    return static_cast<int>(d->tasks.size());
}

MainQueue::TaskId TestClock::schedule(int ms, MainQueue::Task task)
{
    std::lock_guard lock(d->mutex);
    const MainQueue::TaskId id = g_nextId++;
    d->tasks.emplace(std::make_pair(d->now + std::max(ms, 0), d->sequence++), std::make_pair(id, std::move(task)));
    return id;
}

void TestClock::cancel(MainQueue::TaskId id)
{
    std::lock_guard lock(d->mutex);
    for (auto it = d->tasks.begin(); it != d->tasks.end(); ++it) {
        if (it->second.first == id) {
            d->tasks.erase(it);
            return;
        }
    }
}

void TestClock::advance(int ms)
{
    QCoreApplication::sendPostedEvents();
    std::int64_t target;
    {
        std::lock_guard lock(d->mutex);
        target = d->now + std::max(ms, 0);
    }
    for (;;) {
        MainQueue::Task task;
        {
            std::lock_guard lock(d->mutex);
            auto it = d->tasks.begin();
            if (it == d->tasks.end() || it->first.first > target)
                break;
            d->now = it->first.first;
            task = std::move(it->second.second);
            d->tasks.erase(it);
        }
        task();
        QCoreApplication::sendPostedEvents();
    }
    {
        std::lock_guard lock(d->mutex);
        d->now = target;
    }
    QCoreApplication::sendPostedEvents();
}

namespace MainQueue {

void async(Task task)
{
    postToMain(std::move(task));
}

TaskId after(int ms, Task task)
{
    {
        std::lock_guard lock(g_mutex);
        if (g_clock)
            return g_clock->schedule(ms, std::move(task));
    }
    const TaskId id = g_nextId++;
    postToMain([id, ms, task = std::move(task)]() mutable {
        {
            std::lock_guard lock(g_mutex);
            // cancel() before the timer existed leaves a null entry behind as a tombstone
            auto it = g_timers.find(id);
            if (it != g_timers.end() && it.value().isNull()) {
                g_timers.erase(it);
                return;
            }
        }
        auto *timer = new QTimer(mainContext());
        timer->setSingleShot(true);
        QObject::connect(timer, &QTimer::timeout, timer, [id, timer, task = std::move(task)]() {
            bool cancelled;
            {
                std::lock_guard lock(g_mutex);
                cancelled = g_timers.remove(id) == 0;
            }
            timer->deleteLater();
            if (!cancelled)
                task();
        });
        {
            std::lock_guard lock(g_mutex);
            g_timers.insert(id, timer);
        }
        timer->start(std::max(ms, 0));
    });
    return id;
}

void cancel(TaskId id)
{
    if (id == 0)
        return;
    std::lock_guard lock(g_mutex);
    if (g_clock) {
        g_clock->cancel(id);
        return;
    }
    auto it = g_timers.find(id);
    if (it == g_timers.end()) {
        g_timers.insert(id, QPointer<QTimer>()); // not armed yet: leave a tombstone
        return;
    }
    // Removing the entry is what cancels: a timer that still fires finds no entry and skips.
    if (QTimer *timer = it.value())
        QMetaObject::invokeMethod(
            timer,
            [timer] {
                timer->stop();
                timer->deleteLater();
            },
            Qt::QueuedConnection);
    g_timers.erase(it);
}

bool isMainThread()
{
    QObject *context = mainContext();
    return context && QThread::currentThread() == context->thread();
}

void setTestClock(TestClock *clock)
{
    std::lock_guard lock(g_mutex);
    g_clock = clock;
}

} // namespace MainQueue

MainTimer::~MainTimer()
{
    stop();
}

void MainTimer::start(int intervalMs, MainQueue::Task tick)
{
    stop();
    m_interval = intervalMs;
    m_tick = std::move(tick);
    arm();
}

void MainTimer::arm()
{
    m_id = MainQueue::after(m_interval, [this] {
        m_id = 0;
        arm(); // re-arm first so the tick may stop() us
        m_tick();
    });
}

void MainTimer::stop()
{
    MainQueue::cancel(m_id);
    m_id = 0;
}
