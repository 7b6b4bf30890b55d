#pragma once

#include <QString>

#include <functional>
#include <memory>

class QObject;
class QThread;

// A thread with an event loop of its own, for objects that must keep working while the caller
// is busy or blocked (a child process's pipes, UDP probes, the keyring helper).
//
// Work reaches the thread through a queue guarded by a standard mutex rather than through Qt's
// posted events alone: Debian's Qt is not built with ThreadSanitizer, so a hand-over only Qt
// synchronises looks like a race to it, and would hide real ones behind suppressions.
class WorkerThread {
public:
    explicit WorkerThread(const QString &name);
    // Deletes the objects living on the thread (on the thread), then ends it. Work still queued
    // is dropped.
    ~WorkerThread();
    WorkerThread(const WorkerThread &) = delete;
    WorkerThread &operator=(const WorkerThread &) = delete;

    // Runs `task` on the thread, in the order posted. Any thread.
    void post(std::function<void()> task);
    // Runs `task` on the thread and waits for it; runs it at once when called there.
    void runAndWait(std::function<void()> task);
    bool isCurrent() const;
    // Parent for objects that live on the thread; only to be used there.
    QObject *context() const;

private:
    class Inbox;
    std::unique_ptr<QThread> m_thread;
    Inbox *m_inbox;
};
