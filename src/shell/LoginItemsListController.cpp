#include "shell/LoginItemsListController.h"

#include "foundation/Log.h"
#include "platform/Platform.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace {
QString resolved(const QString &path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    return canonical.isEmpty() ? path : canonical;
}

// The name of the login item that starts `path`, or a null string.
QString itemStarting(const QString &path)
{
    const QString wanted = resolved(path);
    for (const Platform::LoginItem &item : Platform::instance().loginItems()) {
        if (!item.path.isEmpty() && resolved(item.path) == wanted)
            return item.name;
    }
    return {};
}

QString ownPath()
{
    return Platform::instance().loginItemPath(QCoreApplication::applicationName());
}
} // namespace

bool LoginItemsListController::willLaunchAtLogin(const QString &path) const
{
    return !itemStarting(path).isNull();
}

void LoginItemsListController::setLaunchAtLogin(bool enabled, const QString &path)
{
    const QString found = itemStarting(path);
    if (enabled && found.isNull())
        Platform::instance().addLoginItem(path);
    else if (!enabled && !found.isNull())
        Platform::instance().deleteLoginItem(found);
    NQLog::line(QStringLiteral("%1: %2 for itemUrl: '%3'.")
                    .arg(QLatin1String("-[LoginItemsListController setLaunchAtLogin:forURL:]"))
                    .arg(enabled ? 1 : 0)
                    .arg(path));
}

bool LoginItemsListController::launchAtLogin() const
{
    return willLaunchAtLogin(ownPath());
}

void LoginItemsListController::setLaunchAtLogin(bool enabled)
{
    setLaunchAtLogin(enabled, ownPath());
    emit launchAtLoginChanged(enabled);
}
