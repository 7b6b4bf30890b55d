// AppStorageManager: the keychain items (device identifier, VPN credentials) and the run's memory
// of them.
#include "foundation/AppStorageManager.h"

#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/SecretQueue.h"

namespace {

const QString kDeviceUUIDAccount = QStringLiteral("deviceUUID");
const QString kUsernameAccount = QStringLiteral("username");
const QString kPasswordAccount = QStringLiteral("password");

std::mutex g_handlerMutex;
std::function<void(const NQError &)> g_notKeptHandler;

// How a nil object prints in a log format ("%@").
QString described(const QString &text)
{
    return text.isNull() ? QStringLiteral("(null)") : text;
}

} // namespace

void AppStorageManager::setSecretsNotKeptHandler(std::function<void(const NQError &)> handler)
{
    std::lock_guard lock(g_handlerMutex);
    g_notKeptHandler = std::move(handler);
}

bool AppStorageManager::keychainServes() const
{
    std::lock_guard lock(m_secretsMutex);
    return !m_run.notKept;
}

NQErrorOpt AppStorageManager::secretsNotKept() const
{
    std::lock_guard lock(m_secretsMutex);
    return m_run.notKept;
}

void AppStorageManager::stopKeepingSecrets(const NQError &why) const
{
    {
        std::lock_guard lock(m_secretsMutex);
        if (m_run.notKept)
            return;
        m_run.notKept = why;
    }
    NQLog::line(QStringLiteral("|AppStorageManager| The keychain cannot keep this run's secrets (%1): the device "
                               "identifier and the VPN credentials are kept in memory until quit.")
                    .arg(why.localizedDescription()));
    MainQueue::async([why] {
        std::function<void(const NQError &)> handler;
        {
            std::lock_guard lock(g_handlerMutex);
            handler = g_notKeptHandler;
        }
        if (handler)
            handler(why);
    });
}

void AppStorageManager::writeSecret(const QString &value, const QString &account) const
{
    SecretQueue::post([this, value, account] {
        if (!keychainServes())
            return;
        NQErrorOpt error;
        if (!m_keychain.setObject(value, account, &error) && error)
            stopKeepingSecrets(*error);
    });
}

QString AppStorageManager::knownDeviceUUID() const
{
    std::lock_guard lock(m_secretsMutex);
    return m_run.deviceUUID;
}

void AppStorageManager::keepDeviceUUIDForThisRun(const QString &uuid)
{
    std::lock_guard lock(m_secretsMutex);
    m_run.deviceUUID = uuid;
}

AppStorageManager::DeviceUUIDLookup AppStorageManager::lookupDeviceUUID() const
{
    const auto known = [this]() -> std::optional<DeviceUUIDLookup> {
        std::lock_guard lock(m_secretsMutex);
        if (!m_run.deviceUUID.isEmpty())
            return DeviceUUIDLookup{m_run.deviceUUID, {}};
        if (m_run.notKept)
            return DeviceUUIDLookup{QString(), m_run.notKept};
        return std::nullopt;
    };
    if (const auto answer = known())
        return *answer;
    return SecretQueue::run<DeviceUUIDLookup>([this, known] {
        if (const auto answer = known())
            return *answer;
        // The credentials come in the same request: start-up asks for the identifier, and a
        // connect then finds them without a keyring round trip.
        QList<NQErrorOpt> errors;
        const QStringList texts =
            m_keychain.stringsForKeys({kDeviceUUIDAccount, kUsernameAccount, kPasswordAccount}, &errors);
        if (const NQErrorOpt error = errors.value(0)) {
            stopKeepingSecrets(*error);
            return DeviceUUIDLookup{QString(), error};
        }
        std::lock_guard lock(m_secretsMutex);
        if (!texts.at(0).isEmpty())
            m_run.deviceUUID = texts.at(0);
        if (!m_run.credentialsKnown && !errors.value(1) && !errors.value(2)) {
            m_run.credentials = {texts.at(1), texts.at(2)};
            m_run.credentialsKnown = true;
        }
        return DeviceUUIDLookup{texts.at(0), {}};
    });
}

QString AppStorageManager::deviceUUID() const
{
    return lookupDeviceUUID().value;
}

bool AppStorageManager::storeDeviceUUID(const QString &uuid)
{
    NQLog::line(QStringLiteral("-[AppStorageManager storeDeviceUUID:]: '%1'.").arg(described(uuid)));
    keepDeviceUUIDForThisRun(uuid);
    writeSecret(uuid, kDeviceUUIDAccount);
    return true;
}

void AppStorageManager::removeDeviceUUID()
{
    NQLog::line(QStringLiteral("-[AppStorageManager removeDeviceUUID]"));
    keepDeviceUUIDForThisRun(QString());
    writeSecret(QString(), kDeviceUUIDAccount);
}

AppStorageManager::VpnCredentials AppStorageManager::readVpnCredentials() const
{
    {
        std::lock_guard lock(m_secretsMutex);
        if (m_run.credentialsKnown || m_run.notKept)
            return m_run.credentials;
    }
    QList<NQErrorOpt> errors;
    const QStringList texts = m_keychain.stringsForKeys({kUsernameAccount, kPasswordAccount}, &errors);
    for (const NQErrorOpt &error : errors) {
        if (error) {
            stopKeepingSecrets(*error);
            std::lock_guard lock(m_secretsMutex);
            return m_run.credentials;
        }
    }
    std::lock_guard lock(m_secretsMutex);
    m_run.credentials = {texts.at(0), texts.at(1)};
    m_run.credentialsKnown = true;
    return m_run.credentials;
}

AppStorageManager::VpnCredentials AppStorageManager::getVpnCredentials() const
{
    {
        std::lock_guard lock(m_secretsMutex);
        if (m_run.credentialsKnown)
            return m_run.credentials;
    }
    return SecretQueue::run<VpnCredentials>([this] { return readVpnCredentials(); });
}

void AppStorageManager::getVpnCredentials(std::function<void(const VpnCredentials &)> completion) const
{
    SecretQueue::post([this, completion = std::move(completion)] {
        const VpnCredentials credentials = readVpnCredentials();
        MainQueue::async([completion, credentials] { completion(credentials); });
    });
}

void AppStorageManager::storeVPNCredentials(const QString &username, const QString &password)
{
    // This line is read verbatim from the log; it includes the password unmasked.
    NQLog::line(QStringLiteral("-[AppStorageManager storeVPNCredentials:pass:]: { username: '%1', password: '%2' }.")
                    .arg(described(username), described(password)));
    {
        std::lock_guard lock(m_secretsMutex);
        m_run.credentials = {username, password};
        m_run.credentialsKnown = true;
    }
    writeSecret(username, kUsernameAccount);
    writeSecret(password, kPasswordAccount);
}

void AppStorageManager::removeVpnCredentials()
{
    NQLog::line(QStringLiteral("|AppStorageManager| removeVpnCredentials"));
    {
        std::lock_guard lock(m_secretsMutex);
        m_run.credentials = {};
        m_run.credentialsKnown = true;
    }
    writeSecret(QString(), kUsernameAccount);
    writeSecret(QString(), kPasswordAccount);
}
