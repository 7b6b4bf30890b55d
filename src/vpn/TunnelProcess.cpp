#include "vpn/TunnelProcess.h"

#include "platform/Platform.h"

#include <QProcess>

TunnelProcess::TunnelProcess() : m_worker(QStringLiteral("vpn-tunnel-io")) {}

// The worker's destructor kills processes still running, on the thread they belong to.
TunnelProcess::~TunnelProcess() = default;

TunnelProcess::Launch TunnelProcess::launch(const QString &program, const QStringList &arguments, Handlers handlers)
{
    Launch result;
    // The task keeps its own handlers: the callbacks it connects are copied from them on the
    // tunnel's thread, not read from the caller's frame.
    m_worker.runAndWait([&, handlers = std::move(handlers)] {
        auto *process = new QProcess(m_worker.context());
        process->setProcessChannelMode(QProcess::MergedChannels);
        process->setStandardInputFile(QProcess::nullDevice());
        process->setProgram(program);
        process->setArguments(arguments);
        // sudo must fail at once rather than ask for a password on our terminal.
        Platform::instance().runWithoutTerminal(*process);
        QObject::connect(process, &QProcess::readyReadStandardOutput, process, [process, onOutput = handlers.onOutput] {
            const QByteArray chunk = process->readAllStandardOutput();
            if (!chunk.isEmpty() && onOutput)
                onOutput(chunk);
        });
        QObject::connect(process, &QProcess::finished, process,
                         [process, onTerminated = handlers.onTerminated](int exitCode, QProcess::ExitStatus) {
                             if (onTerminated)
                                 onTerminated(exitCode, process->readAllStandardOutput());
                             process->deleteLater();
                         });
        process->start();
        if (process->waitForStarted()) {
            result.pid = process->processId();
        } else {
            result.failureReason = process->errorString();
            delete process;
        }
    });
    return result;
}
