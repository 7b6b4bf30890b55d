#include "ui/app/ProcessChromeLauncher.h"

#include "platform/Platform.h"

#include <QProcess>

NQErrorOpt ProcessChromeLauncher::openGoogleChrome(const QStringList &arguments)
{
    const QStringList command = Platform::instance().openInChromeCommand(arguments.value(0));
    if (command.isEmpty())
        return NQError(QLatin1String(kErrorDomain), kNotInstalledCode,
                       {{QLatin1String(NQError::kLocalizedDescriptionKey),
                         QStringLiteral("Google Chrome is not installed on this computer.")}});
    if (!QProcess::startDetached(command.first(), command.mid(1) + arguments.mid(1)))
        return NQError(QLatin1String(kErrorDomain), kCannotStartCode,
                       {{QLatin1String(NQError::kLocalizedDescriptionKey),
                         QStringLiteral("Google Chrome could not be started (%1).").arg(command.first())}});
    return std::nullopt;
}
