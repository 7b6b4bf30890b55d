// AppStorageManager: what the program keeps to connect by itself.
#include "foundation/AppStorageManager.h"

namespace {
constexpr auto kAutoconnect = "AUTO_CONNECT";
constexpr auto kLastCluster = "LAST_CLUSTER";
} // namespace

bool AppStorageManager::appAutoconnectEnabled() const
{
    return boolForKey(kAutoconnect);
}

void AppStorageManager::storeAppAutoconnectEnabled(bool value)
{
    writeValue(QLatin1String(kAutoconnect), value);
}

QString AppStorageManager::lastConnectedCluster() const
{
    return stringForKey(kLastCluster);
}

void AppStorageManager::storeLastConnectedCluster(const QString &countryName)
{
    // Written from the tunnel's reader thread on every connect: deferred like the state, and
    // skipped when unchanged so a reconnect costs no write.
    if (countryName.isEmpty() || countryName == lastConnectedCluster())
        return;
    setValueDeferred(QLatin1String(kLastCluster), countryName);
}
