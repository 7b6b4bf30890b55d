#include "foundation/WorkerThread.h"

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

class WorkerThread::Inbox : public QObject {
    Q_OBJECT
public:
    void push(std::function<void()> task)
    {
        {
            std::lock_guard lock(m_mutex);
            m_tasks.push_back(std::move(task));
        }
        // Invoked by name, so nothing built here crosses to the thread outside the mutex.
        QMetaObject::invokeMethod(this, "runPending", Qt::QueuedConnection);
    }

    Q_INVOKABLE void runPending()
    {
        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard lock(m_mutex);
            tasks.swap(m_tasks);
        }
        for (const auto &task : tasks)
            task();
    }

private:
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_tasks;
};

WorkerThread::WorkerThread(const QString &name) : m_thread(std::make_unique<QThread>()), m_inbox(new Inbox)
{
    m_thread->setObjectName(name);
    m_inbox->moveToThread(m_thread.get());
    m_thread->start();
}

WorkerThread::~WorkerThread()
{
    runAndWait([this] {
        for (QObject *child : m_inbox->children()) {
            QObject::disconnect(child, nullptr, nullptr, nullptr);
            delete child;
        }
    });
    m_thread->quit();
    m_thread->wait();
    delete m_inbox;
}

void WorkerThread::post(std::function<void()> task)
{
    m_inbox->push(std::move(task));
}

void WorkerThread::runAndWait(const std::function<void()> &task)
{
    if (isCurrent()) {
        task();
        return;
    }
    // The thread owns a copy of the task and the hand-back state, so it never reads the
    // caller's stack; the flag's release and acquire are what the sanitizer sees hand it back.
    struct Handback {
        std::mutex mutex;
        std::condition_variable ran;
        std::atomic<bool> done = false;
    };
    const auto handback = std::make_shared<Handback>();
    post([handback, task] {
        task();
        std::lock_guard lock(handback->mutex);
        handback->done.store(true, std::memory_order_release);
        handback->ran.notify_one();
    });
    std::unique_lock lock(handback->mutex);
    handback->ran.wait(lock, [&] { return handback->done.load(std::memory_order_acquire); });
}

bool WorkerThread::isCurrent() const
{
    return QThread::currentThread() == m_thread.get();
}

QObject *WorkerThread::context() const
{
    return m_inbox;
}

#include "WorkerThread.moc"
