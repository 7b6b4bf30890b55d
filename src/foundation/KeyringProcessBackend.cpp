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

SecretBackend::Result KeyringProcessBackend::remove(const QString &service, const QString &account)
{
    return run(Operation::Remove, service, account, {});
}

SecretBackend::Result KeyringProcessBackend::run(Operation operation, const QString &service, const QString &account,
                                                 const QByteArray &data)
{
    std::lock_guard lock(m_mutex);
    const QFileInfo helper(m_helperPath);
    if (!helper.isFile() || !helper.isExecutable())
        return failure(NotAvailable, QStringLiteral("The keyring helper %1 is missing.").arg(m_helperPath));
    const std::optional<QByteArray> request =
        KeyringMessage::encode({operation, service.toUtf8(), account.toUtf8(), data});
    if (!request)
        return failure(InternalComponent, QStringLiteral("The item is too large for the keyring helper."));

    const QDeadlineTimer deadline(m_timeout);
    QProcess process;
    process.setProgram(m_helperPath);
    // The helper prints nothing there; a library's warning must not reach our output either.
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QIODevice::ReadWrite);
    if (!process.waitForStarted(int(deadline.remainingTime())))
        return failure(
            InternalComponent,
            QStringLiteral("The keyring helper %1 could not be started: %2").arg(m_helperPath, process.errorString()));
    process.write(*request);
    process.closeWriteChannel();
    if (!process.waitForFinished(int(deadline.remainingTime()))) {
        process.kill();
        process.waitForFinished();
        return failure(InternalComponent, QStringLiteral("The keyring helper %1 did not answer within %2 s.")
                                              .arg(m_helperPath)
                                              .arg(double(m_timeout.count()) / 1000.0));
    }
    if (process.exitStatus() == QProcess::CrashExit)
        return failure(InternalComponent,
                       QStringLiteral("The keyring helper %1 stopped unexpectedly.").arg(m_helperPath));
    const std::optional<KeyringMessage::Answer> answer = KeyringMessage::decodeAnswer(process.readAllStandardOutput());
    if (!answer)
        return failure(InternalComponent,
                       QStringLiteral("The keyring helper %1 gave an answer that could not be read (exit code %2).")
                           .arg(m_helperPath)
                           .arg(process.exitCode()));
    Result result;
    result.status = answer->status;
    result.message = QString::fromUtf8(answer->message);
    result.data = answer->secret;
    return result;
}

SecretBackend::Result KeyringProcessBackend::failure(int status, const QString &message)
{
    Result result;
    result.status = status;
    result.message = message;
    return result;
}
