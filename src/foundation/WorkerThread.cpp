#include "foundation/WorkerThread.h"

#include "foundation/Handback.h"

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <deque>
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

void WorkerThread::runAndWait(std::function<void()> task)
{
    if (isCurrent()) {
        task();
        return;
    }
    runOnAndWait([this](std::function<void()> work) { post(std::move(work)); }, std::move(task));
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
