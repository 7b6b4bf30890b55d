// The device identifier, apart from the rest of the configuration because it is the one
// value that lives in the settings store.
#include "foundation/AppConfig.h"

#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "foundation/StringAddition.h"

#include <mutex>

QString AppConfig::deviceUniqueID()
{
    // Two threads asking at once must not both make (and store) an identifier.
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    AppStorageManager &storage = AppStorageManager::sharedManager();
    const QString stored = storage.deviceUUID();
    if (!stored.isEmpty())
        return stored;
    const QString made = StringAddition::randomDeviceID();
    NQLog::line(QStringLiteral("|AppConfig| Missing device UUID create new: %1").arg(made));
    storage.storeDeviceUUID(made);
    return made;
}
