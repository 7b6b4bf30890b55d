#include "vpn/BoundedCommand.h"

#include "platform/Platform.h"

#include <QProcess>

BoundedCommand BoundedCommand::run(const QString &program, const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    Platform::instance().runWithoutTerminal(process);
    process.start(program, arguments);
    if (!process.waitForStarted())
        return {Outcome::NotStarted, process.errorString()};
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(timeoutMs);
        return {Outcome::TimedOut, {}};
    }
    const QString output = QString::fromUtf8(process.readAll());
    const bool ok = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return {ok ? Outcome::Succeeded : Outcome::Failed, output};
}
