#include "vpn/FlagUtils.h"

#include "platform/Platform.h"

#include <QFileInfo>

FlagUtils::FlagUtils(QString flagsDirectory) : m_directory(std::move(flagsDirectory)) {}

FlagUtils &FlagUtils::defaultInstance()
{
    static FlagUtils instance(Platform::instance().resourcesDirectory() + QStringLiteral("/flags"));
    return instance;
}

QString FlagUtils::getFlagForCountryCode(const QString &code) const
{
    if (code.isNull() || code == QLatin1String("Unknown"))
        return imageNamed(QLatin1String(kUnknownFlagName));
    return imageNamed(code.toLower());
}

QString FlagUtils::imageNamed(const QString &name) const
{
    // A name is a single file name: a code with a path separator or dots names no image.
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || name.startsWith(QLatin1Char('.')))
        return {};
    const QString path = m_directory + QLatin1Char('/') + name + QStringLiteral(".svg");
    return QFileInfo(path).isFile() ? path : QString();
}
