#include "foundation/KeyringProcessBackend.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QProcess>

using KeyringMessage::Operation;

KeyringProcessBackend::KeyringProcessBackend(QString helperPath, std::chrono::milliseconds timeout)
    : m_helperPath(std::move(helperPath)), m_timeout(timeout)
{
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
    std::vector<Result> results;
    results.reserve(size_t(accounts.size()));
    std::vector<KeyringMessage::Request> requests;
    for (qsizetype i = 0; i < accounts.size(); ++i) {
        requests.push_back({Operation::Find, service.toStdString(), accounts.at(i).toStdString(), {}});
        if (requests.size() == KeyringMessage::kMaxRequestsPerRun || i + 1 == accounts.size()) {
            for (Result &result : runAll(requests))
                results.push_back(std::move(result));
            requests.clear();
        }
    }
    return results;
}

std::vector<SecretBackend::Result> KeyringProcessBackend::runAll(const std::vector<KeyringMessage::Request> &requests)
{
    const auto failAll = [&](int status, const QString &message) {
        return std::vector<Result>(requests.size(), Result::failure(status, message));
    };
    std::lock_guard lock(m_mutex);
    const QFileInfo helper(m_helperPath);
    if (!helper.isFile() || !helper.isExecutable())
        return failAll(NotAvailable, QStringLiteral("The keyring helper %1 is missing.").arg(m_helperPath));
    std::string stream;
    for (const KeyringMessage::Request &request : requests) {
        const std::optional<std::string> bytes = KeyringMessage::encode(request);
        if (!bytes)
            return failAll(InternalComponent, QStringLiteral("The item is too large for the keyring helper."));
        stream += *bytes;
    }

    const QDeadlineTimer deadline(m_timeout);
    QProcess process;
    process.setProgram(m_helperPath);
    // The helper prints nothing there; a library's warning must not reach our output either.
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QIODevice::ReadWrite);
    if (!process.waitForStarted(int(deadline.remainingTime())))
        return failAll(
            InternalComponent,
            QStringLiteral("The keyring helper %1 could not be started: %2").arg(m_helperPath, process.errorString()));
    process.write(stream.data(), qint64(stream.size()));
    process.closeWriteChannel();
    if (!process.waitForFinished(int(deadline.remainingTime()))) {
        process.kill();
        process.waitForFinished();
        return failAll(InternalComponent, QStringLiteral("The keyring helper %1 did not answer within %2 s.")
                                              .arg(m_helperPath)
                                              .arg(double(m_timeout.count()) / 1000.0));
    }
    if (process.exitStatus() == QProcess::CrashExit)
        return failAll(InternalComponent,
                       QStringLiteral("The keyring helper %1 stopped unexpectedly.").arg(m_helperPath));
    const QByteArray output = process.readAllStandardOutput();
    std::string_view rest(output.constData(), size_t(output.size()));
    std::vector<Result> results;
    for (size_t i = 0; i < requests.size(); ++i) {
        const std::optional<KeyringMessage::Answer> answer = KeyringMessage::takeAnswer(rest);
        if (!answer)
            break;
        Result result;
        result.status = answer->status;
        result.message = QString::fromStdString(answer->message);
        result.data = QByteArray::fromStdString(answer->secret);
        results.push_back(std::move(result));
    }
    // Answers for only some requests, or more than asked, mean a helper that is not ours.
    if (results.size() != requests.size() || !rest.empty())
        return failAll(InternalComponent,
                       QStringLiteral("The keyring helper %1 gave an answer that could not be read (exit code %2).")
                           .arg(m_helperPath)
                           .arg(process.exitCode()));
    return results;
}
