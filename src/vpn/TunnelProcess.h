#pragma once

#include "foundation/WorkerThread.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

// Starts tunnel client processes and watches them on one I/O thread of its own, so the
// output keeps being read while the main thread is busy or blocked. Standard input is empty
// (end-of-file at once); standard output and error arrive as one stream.
//
// The handlers run on the I/O thread: onOutput once per chunk the pipe delivered, then
// onTerminated once with the exit status and whatever output was still unread. A running
// process is kept alive until it ends, or until this object is destroyed (it is then killed).
class TunnelProcess {
public:
    struct Handlers {
        std::function<void(const QByteArray &chunk)> onOutput;
        std::function<void(int exitStatus, const QByteArray &remaining)> onTerminated;
    };
    struct Launch {
        qint64 pid = 0; // 0 when the launch failed
        QString failureReason;
    };

    TunnelProcess();
    ~TunnelProcess();
    TunnelProcess(const TunnelProcess &) = delete;
    TunnelProcess &operator=(const TunnelProcess &) = delete;

    // Launches `program` with `arguments`; blocks until it runs or has failed to start.
    Launch launch(const QString &program, const QStringList &arguments, Handlers handlers);

private:
    WorkerThread m_worker; // parent of the running processes
};
