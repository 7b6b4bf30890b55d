#include "shell/NQAppKit.h"

#include "foundation/AppStorageManager.h"
#include "foundation/BundleExtended.h"
#include "shell/NQTask.h"

namespace NQAppKit {

bool appFirstSession(const QStringList &arguments)
{
    for (const char *flag : {"NQ_FIRST_RUN", "FIRST_RUN", "CLEAR_USERDEFAULTS"})
        if (arguments.contains(QLatin1String(flag)))
            return true;
    return false;
}

bool appFirstRun()
{
    return !AppStorageManager::sharedManager().notFirstRun();
}

QString appName()
{
    return BundleExtended::stringForKey(BundleExtended::kNameKey);
}

bool appIsInLoginItems()
{
    return NQTask::appIsInLoginItems();
}

void setLaunchAtLogin(bool enabled)
{
    if (enabled)
        NQTask::addAppToLoginItems();
    else
        NQTask::deleteLoginItemWithName(appName());
}

void removeAppFromLoginItems()
{
    NQTask::deleteLoginItemWithName(appName());
}

} // namespace NQAppKit
