// Presence checks of BrowserExtensionApi: installed browsers and the companion extension in
// the console user's Chrome profiles. Only the first four profiles are searched, by design.
#include "extension/BrowserExtensionApi.h"

#include "foundation/Log.h"
#include "platform/Platform.h"

#include <QDir>
#include <QFileInfo>

bool BrowserExtensionApi::isChromeInstalled() const
{
    return m_platform.isChromeInstalled();
}

bool BrowserExtensionApi::isFirefoxInstalled() const
{
    return m_platform.isFirefoxInstalled();
}

QString BrowserExtensionApi::currentUserHomeDirectory() const
{
    const Platform::ConsoleUser user = m_platform.consoleUser();
    if (user.name.trimmed().isEmpty() || user.home.isEmpty())
        return {};
    return user.home;
}

bool BrowserExtensionApi::extensionFolderExists(const QString &profileDir, const QString &extensionID) const
{
    if (QFileInfo(profileDir + QStringLiteral("/Extensions/") + extensionID).isDir())
        return true;
    const QString unpacked = profileDir + QStringLiteral("/Local Extension Settings/") + extensionID;
    if (QFileInfo(unpacked).isDir()) {
        NQLog::line(QStringLiteral("Developer extension found in %1").arg(unpacked));
        return true;
    }
    return false;
}

bool BrowserExtensionApi::isChromeExtensionInstalled() const
{
    const QString id = chromeExtensionsID();
    if (id.isEmpty())
        return false;
    const QString home = currentUserHomeDirectory();
    if (home.isNull())
        return false;
    for (const QString &profileDir : m_platform.chromeProfileDirectories(home)) {
        if (extensionFolderExists(profileDir, id))
            return true;
    }
    NQLog::line(QStringLiteral("Extension %1 not found for user %2").arg(id, home));
    return false;
}

bool BrowserExtensionApi::folderExistsForProfile(int profileNumber, const QString &extensionID) const
{
    const QString home = currentUserHomeDirectory();
    if (home.isNull())
        return false;
    const QString name = QStringLiteral("/Profile %1").arg(profileNumber);
    for (const QString &profileDir : m_platform.chromeProfileDirectories(home)) {
        if (profileDir.endsWith(name) && extensionFolderExists(profileDir, extensionID))
            return true;
    }
    return false;
}

bool BrowserExtensionApi::extensionIDExistsForDefaultProfile(const QString &extensionID) const
{
    const QString home = currentUserHomeDirectory();
    if (home.isNull())
        return false;
    for (const QString &profileDir : m_platform.chromeProfileDirectories(home)) {
        if (profileDir.endsWith(QStringLiteral("/Default")) &&
            QFileInfo(profileDir + QStringLiteral("/Extensions/") + extensionID).isDir())
            return true;
    }
    return false;
}
