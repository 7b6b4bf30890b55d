#pragma once

#include <QStringList>

#include <functional>

// What the application object asks its delegate.
class ApplicationDelegate {
public:
    enum TerminateReply { TerminateCancel = 0, TerminateNow = 1, TerminateLater = 2 };

    virtual ~ApplicationDelegate() = default;
    virtual TerminateReply applicationShouldTerminate() = 0;
    virtual void applicationWillTerminate() = 0;
    virtual void applicationDidBecomeActive() = 0;
};

// The application object: command-line arguments, the quit request and activation, passed
// to the delegate. The event loop itself belongs to the caller, who says how to leave it.
class NQApplication {
public:
    // `exitLoop` ends the process's event loop once the application has terminated;
    // by default QCoreApplication::quit().
    explicit NQApplication(QStringList arguments, std::function<void()> exitLoop = {});
    ~NQApplication();
    NQApplication(const NQApplication &) = delete;
    NQApplication &operator=(const NQApplication &) = delete;

    // The instance alive in this process, or nullptr.
    static NQApplication *current();

    const QStringList &arguments() const { return m_arguments; }
    void setDelegate(ApplicationDelegate *delegate) { m_delegate = delegate; }

    // Asks the delegate; on TerminateNow tells it the application will terminate, then leaves
    // the event loop. Later requests after that are ignored.
    void terminate();
    // The application became active (Dock, status menu, a second start).
    void activate();
    bool isTerminated() const { return m_terminated; }

private:
    QStringList m_arguments;
    std::function<void()> m_exitLoop;
    ApplicationDelegate *m_delegate = nullptr;
    bool m_terminated = false;
};
