#include "vpn/TunnelProcess.h"

#include "platform/Platform.h"

#include <QMetaObject>
#include <QProcess>
#include <QThread>

#include <future>

TunnelProcess::TunnelProcess() : m_thread(new QThread), m_context(new QObject)
{
    m_thread->setObjectName(QStringLiteral("vpn-tunnel-io"));
    m_context->moveToThread(m_thread);
    m_thread->start();
}

TunnelProcess::~TunnelProcess()
{
    // Processes still running are killed by their destructors, on the thread they belong to.
    QMetaObject::invokeMethod(
        m_context,
        [this] {
            for (QObject *child : m_context->children()) {
                QObject::disconnect(child, nullptr, nullptr, nullptr);
                delete child;
            }
        },
        Qt::BlockingQueuedConnection);
    m_thread->quit();
    m_thread->wait();
    delete m_context;
    delete m_thread;
}

TunnelProcess::Launch TunnelProcess::launch(const QString &program, const QStringList &arguments, Handlers handlers)
{
    // The launch runs on the I/O thread; its result comes back through a future, a hand-over
    // the thread sanitizer can see (Qt's blocking call synchronises out of its sight).
    auto promise = std::make_shared<std::promise<Launch>>();
    std::future<Launch> launched = promise->get_future();
    QMetaObject::invokeMethod(
        m_context,
        [this, program, arguments, handlers = std::move(handlers), promise] {
            Launch result;
            auto *process = new QProcess(m_context);
            process->setProcessChannelMode(QProcess::MergedChannels);
            process->setStandardInputFile(QProcess::nullDevice());
            process->setProgram(program);
            process->setArguments(arguments);
            // sudo must fail at once rather than ask for a password on our terminal.
            Platform::instance().runWithoutTerminal(*process);
            QObject::connect(process, &QProcess::readyReadStandardOutput, process,
                             [process, onOutput = handlers.onOutput] {
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
            promise->set_value(result);
        },
        Qt::QueuedConnection);
    return launched.get();
}
