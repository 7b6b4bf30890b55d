#include "foundation/KeyringProcessBackend.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTimer>

using KeyringMessage::Operation;

KeyringProcessBackend::KeyringProcessBackend(QString helperPath, std::chrono::milliseconds timeout,
                                             std::chrono::milliseconds keepAlive)
    : m_helperPath(std::move(helperPath)), m_timeout(timeout), m_keepAlive(keepAlive)
{
}

KeyringProcessBackend::~KeyringProcessBackend()
{
    if (!m_worker)
        return;
    m_worker->runAndWait([this] {
        stopHelper();
        m_idle.reset();
    });
    m_worker.reset();
}

SecretBackend::Result KeyringProcessBackend::ping()
{
    return run(Operation::Ping, {}, {}, {});
}

SecretBackend::Result KeyringProcessBackend::find(const QString &service, const QString &account)
{
    return run(Operation::Find, service, account, {});
}

SecretBackend::Result KeyringProcessBackend::update(const QString &service, const QString &account,
                                                    const QByteArray &data)
{
    return run(Operation::Update, service, account, data);
}

SecretBackend::Result KeyringProcessBackend::add(const QString &service, const QString &account, const QByteArray &data)
{
    return run(Operation::Add, service, account, data);
}

SecretBackend::Result KeyringProcessBackend::addLabelled(const QString &service, const QString &account,
                                                         const QByteArray &data, const QString &label)
{
    return runAll({{Operation::AddLabelled, service.toStdString(), account.toStdString(), data.toStdString(),
                    label.toStdString()}})
        .front();
}

SecretBackend::Result KeyringProcessBackend::remove(const QString &service, const QString &account)
{
    return run(Operation::Remove, service, account, {});
}

SecretBackend::Result KeyringProcessBackend::run(Operation operation, const QString &service, const QString &account,
                                                 const QByteArray &data)
{
    return runAll({{operation, service.toStdString(), account.toStdString(), data.toStdString()}}).front();
}

std::vector<SecretBackend::Result> KeyringProcessBackend::findAll(const QString &service, const QStringList &accounts)
{
    std::vector<KeyringMessage::Request> requests;
    for (const QString &account : accounts)
        requests.push_back({Operation::Find, service.toStdString(), account.toStdString(), {}});
    return requests.empty() ? std::vector<Result>() : runAll(requests);
}

std::vector<SecretBackend::Result> KeyringProcessBackend::runAll(const std::vector<KeyringMessage::Request> &requests)
{
    std::string stream;
    for (const KeyringMessage::Request &request : requests) {
        const std::optional<std::string> bytes = KeyringMessage::encode(request);
        if (!bytes)
            return std::vector<Result>(
                requests.size(),
                Result::failure(InternalComponent, QStringLiteral("The item is too large for the keyring helper.")));
        stream += *bytes;
    }
    std::call_once(m_threadStarted,
                   [this] { m_worker = std::make_unique<WorkerThread>(QStringLiteral("keyring helper")); });
    std::vector<Result> results;
    m_worker->runAndWait([&] { results = exchange(stream, requests.size()); });
    return results;
}

std::vector<SecretBackend::Result> KeyringProcessBackend::exchange(const std::string &stream, size_t count)
{
    if (!m_idle) {
        m_idle = std::make_unique<QTimer>();
        m_idle->setSingleShot(true);
        QObject::connect(m_idle.get(), &QTimer::timeout, [this] { stopHelper(); });
    }
    m_idle->stop();
    std::vector<Result> results;
    Outcome outcome = exchangeOnce(stream, count, &results);
    // The helper gave up waiting just as the requests came: it read none of them.
    if (outcome == Outcome::LeftIdle)
        outcome = exchangeOnce(stream, count, &results);
    if (outcome == Outcome::LeftIdle)
        fail(count, InternalComponent,
             QStringLiteral("The keyring helper %1 ended before it answered.").arg(m_helperPath), &results);
    if (m_process)
        m_idle->start(m_keepAlive);
    return results;
}

KeyringProcessBackend::Outcome KeyringProcessBackend::exchangeOnce(const std::string &stream, size_t count,
                                                                   std::vector<Result> *results)
{
    results->clear();
    if (!m_process || m_process->state() != QProcess::Running) {
        stopHelper();
        QString failure;
        if (!startHelper(&failure)) {
            const QFileInfo helper(m_helperPath);
            return fail(count, helper.isFile() && helper.isExecutable() ? InternalComponent : NotAvailable, failure,
                        results);
        }
    }
    const QDeadlineTimer deadline(m_timeout);
    m_process->write(stream.data(), qint64(stream.size()));
    for (;;) {
        m_pending += m_process->readAllStandardOutput().toStdString();
        std::string_view rest = m_pending;
        bool incomplete = true;
        while (results->size() < count) {
            const std::optional<KeyringMessage::Answer> answer = KeyringMessage::takeAnswer(rest, &incomplete);
            if (!answer)
                break;
            results->push_back(Result{answer->status, QByteArray::fromStdString(answer->secret),
                                      QString::fromStdString(answer->message)});
        }
        m_pending.erase(0, m_pending.size() - rest.size());
        // Answers past the ones asked for, or bytes that start none, mean a helper that is not ours.
        if ((results->size() == count && !m_pending.empty()) || (results->size() < count && !incomplete))
            return fail(
                count, InternalComponent,
                QStringLiteral("The keyring helper %1 gave an answer that could not be read.").arg(m_helperPath),
                results);
        if (results->size() == count)
            return Outcome::Answered;
        if (m_process->state() == QProcess::NotRunning) {
            if (m_process->bytesAvailable() > 0)
                continue;
            if (m_process->exitStatus() == QProcess::CrashExit)
                return fail(count, InternalComponent,
                            QStringLiteral("The keyring helper %1 stopped unexpectedly.").arg(m_helperPath), results);
            if (m_process->exitCode() == KeyringMessage::kHelperIdleExitCode && results->empty() && m_pending.empty()) {
                stopHelper();
                return Outcome::LeftIdle;
            }
            return fail(count, InternalComponent,
                        QStringLiteral("The keyring helper %1 gave an answer that could not be read (exit code %2).")
                            .arg(m_helperPath)
                            .arg(m_process->exitCode()),
                        results);
        }
        if (!m_process->waitForReadyRead(int(deadline.remainingTime())) && deadline.hasExpired() &&
            m_process->state() != QProcess::NotRunning)
            return fail(count, InternalComponent,
                        QStringLiteral("The keyring helper %1 did not answer within %2 s.")
                            .arg(m_helperPath)
                            .arg(double(m_timeout.count()) / 1000.0),
                        results);
    }
}

bool KeyringProcessBackend::startHelper(QString *failure)
{
    const QFileInfo helper(m_helperPath);
    if (!helper.isFile() || !helper.isExecutable()) {
        *failure = QStringLiteral("The keyring helper %1 is missing.").arg(m_helperPath);
        return false;
    }
    m_process = std::make_unique<QProcess>();
    m_process->setProgram(m_helperPath);
    // The helper prints nothing there; a library's warning must not reach our output either.
    m_process->setStandardErrorFile(QProcess::nullDevice());
    m_process->start(QIODevice::ReadWrite);
    ++m_starts;
    if (!m_process->waitForStarted(int(m_timeout.count()))) {
        *failure = QStringLiteral("The keyring helper %1 could not be started: %2")
                       .arg(m_helperPath, m_process->errorString());
        m_process.reset();
        return false;
    }
    return true;
}

void KeyringProcessBackend::stopHelper()
{
    m_pending.clear();
    if (!m_process)
        return;
    if (m_process->state() != QProcess::NotRunning) {
        // Its input closing is the helper's sign to end; one that does not is not ours.
        m_process->closeWriteChannel();
        if (!m_process->waitForFinished(kStopWaitMs)) {
            m_process->kill();
            m_process->waitForFinished();
        }
    }
    m_process.reset();
}

KeyringProcessBackend::Outcome KeyringProcessBackend::fail(size_t count, int status, const QString &message,
                                                           std::vector<Result> *results)
{
    if (m_process && m_process->state() != QProcess::NotRunning) {
        m_process->kill();
        m_process->waitForFinished();
    }
    stopHelper();
    *results = std::vector<Result>(count, Result::failure(status, message));
    return Outcome::Failed;
}
