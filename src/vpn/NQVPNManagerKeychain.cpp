// NQVPNManager: the keychain password helpers. Nothing else in the application calls them.
#include "vpn/NQVPNManager.h"

#include "foundation/Log.h"
#include "foundation/SecretBackend.h"

namespace {
void log(const QString &text)
{
    NQLog::line(QStringLiteral("|NQVPNManager| ") + text);
}

QString service()
{
    return QLatin1String(NQVPNManager::kKeychainService);
}

QString account()
{
    return QLatin1String(NQVPNManager::kKeychainAccount);
}
} // namespace

void NQVPNManager::savePasswordToKeychain(const QString &password)
{
    constexpr int kDuplicateItem = -25299;
    SecretBackend &secrets = *SecretBackend::systemDefault();
    const QByteArray data = password.toUtf8();
    // The secret store adds blindly, so the duplicate case of the keychain is found first.
    const auto existing = secrets.find(service(), account());
    const int status =
        existing.ok()
            ? kDuplicateItem
            : secrets.addLabelled(service(), account(), data, QLatin1String(NQVPNManager::kKeychainLabel)).status;
    if (status == SecretBackend::Success) {
        log(QStringLiteral("Password successfully saved to Keychain."));
    } else if (status == kDuplicateItem) {
        log(QStringLiteral("Password already exists in Keychain. Updating it."));
        const auto update = secrets.update(service(), account(), data);
        if (update.ok())
            log(QStringLiteral("Password successfully updated in Keychain."));
        else
            log(QStringLiteral("Failed to update password in Keychain with error: %1").arg(update.status));
    } else {
        log(QStringLiteral("Failed to save password to Keychain with error: %1").arg(status));
    }
}

QString NQVPNManager::retrievePasswordFromKeychain()
{
    const auto found = SecretBackend::systemDefault()->find(service(), account());
    if (found.ok()) {
        log(QStringLiteral("Password successfully retrieved from Keychain."));
        return QString::fromUtf8(found.data);
    }
    if (found.status == SecretBackend::ItemNotFound)
        log(QStringLiteral("No password found in Keychain for the given service and account."));
    else
        log(QStringLiteral("Failed to retrieve password from Keychain with error: %1").arg(found.status));
    return {};
}
