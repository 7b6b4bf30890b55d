// Presence checks of BrowserExtensionApi: installed browsers and the companion extension in
// the console user's Chrome profiles, in every user-data folder the platform knows (channels,
// Snap, Flatpak). The installed-extension check looks at the first four profiles only, by design.
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
    const QStringList roots = m_platform.chromeUserDataDirectories(home);
    for (const QString &profile : {QStringLiteral("Default"), QStringLiteral("Profile 1"), QStringLiteral("Profile 2"),
                                   QStringLiteral("Profile 3")}) {
        for (const QString &root : roots) {
            if (extensionFolderExists(root + QLatin1Char('/') + profile, id))
                return true;
        }
    }
    NQLog::line(QStringLiteral("Extension %1 not found for user %2").arg(id, home));
    return false;
}

bool BrowserExtensionApi::folderExistsForProfile(int profileNumber, const QString &extensionID) const
{
    const QString home = currentUserHomeDirectory();
    if (home.isNull())
        return false;
    const QString profile = QStringLiteral("/Profile %1").arg(profileNumber);
    for (const QString &root : m_platform.chromeUserDataDirectories(home)) {
        if (extensionFolderExists(root + profile, extensionID))
            return true;
    }
    return false;
}

bool BrowserExtensionApi::extensionIDExistsForDefaultProfile(const QString &extensionID) const
{
    const QString home = currentUserHomeDirectory();
    if (home.isNull())
        return false;
    for (const QString &root : m_platform.chromeUserDataDirectories(home)) {
        if (QFileInfo(root + QStringLiteral("/Default/Extensions/") + extensionID).isDir())
            return true;
    }
    return false;
}

bool BrowserExtensionApi::extensionIDExistsForDebugExtensions(const QString &extensionID) const
{
    const QString home = currentUserHomeDirectory();
    if (!home.isNull()) {
        for (const QString &root : m_platform.chromeUserDataDirectories(home)) {
            if (QFileInfo(root + QStringLiteral("/Default/Local Extension Settings/") + extensionID).isDir())
                return true;
        }
    }
    return isExtensionInstalledForDebug(extensionID);
}

bool BrowserExtensionApi::isExtensionInstalledForDebug(const QString &extensionID) const
{
    // "~" is the user running us, whoever sits at the console; Chrome's own folder comes first.
    const QStringList roots = m_platform.chromeUserDataDirectories(QDir::homePath());
    if (roots.isEmpty())
        return false;
    const QString path = roots.first() + QStringLiteral("/Default/Extensions/") + extensionID;
    NQLog::line(QStringLiteral("Checking extension path: %1").arg(path));
    const bool exists = QFileInfo(path).isDir();
    NQLog::line(
        QStringLiteral("Extension folder exists: %1").arg(exists ? QStringLiteral("YES") : QStringLiteral("NO")));
    return exists;
}
