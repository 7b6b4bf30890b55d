// The device identifier, apart from the rest of the configuration because it is the one
// value that lives in the settings store.
#include "foundation/AppConfig.h"

#include "foundation/AppStorageManager.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/SecretQueue.h"
#include "foundation/StringAddition.h"

#include <mutex>

QString AppConfig::deviceUniqueID()
{
    // Two threads asking at once must not both make (and store) an identifier.
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    AppStorageManager &storage = AppStorageManager::sharedManager();
    const AppStorageManager::DeviceUUIDLookup stored = storage.lookupDeviceUUID();
    if (!stored.value.isEmpty())
        return stored.value;
    const QString made = StringAddition::randomDeviceID();
    if (stored.error) {
        // Storing it now could bury the keychain's own identifier under a second one.
        NQLog::line(QStringLiteral("|AppConfig| Cannot read the device UUID (%1); using %2 for this run only.")
                        .arg(stored.error->localizedDescription(), made));
        storage.keepDeviceUUIDForThisRun(made);
        return made;
    }
    NQLog::line(QStringLiteral("|AppConfig| Missing device UUID create new: %1").arg(made));
    storage.storeDeviceUUID(made);
    return made;
}

void AppConfig::deviceUniqueID(std::function<void(const QString &)> completion)
{
    const QString known = AppStorageManager::sharedManager().knownDeviceUUID();
    if (!known.isEmpty()) {
        completion(known);
        return;
    }
    SecretQueue::post([completion = std::move(completion)] {
        const QString identifier = deviceUniqueID();
        MainQueue::async([completion, identifier] { completion(identifier); });
    });
}
