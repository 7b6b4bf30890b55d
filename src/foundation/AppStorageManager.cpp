#include "foundation/AppStorageManager.h"

#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "foundation/SecretQueue.h"

#include <QFile>

namespace {

std::mutex g_sharedMutex;
std::unique_ptr<AppStorageManager> g_shared;

} // namespace

AppStorageManager::AppStorageManager(const QString &settingsFilePath, KeychainStore keychain)
    : m_path(settingsFilePath), m_keychain(std::move(keychain))
{
    openSettings();
}

AppStorageManager::~AppStorageManager()
{
    // Keychain work posted by this instance must not outlive it.
    SecretQueue::drain();
    flush();
}

AppStorageManager &AppStorageManager::sharedManager()
{
    std::lock_guard lock(g_sharedMutex);
    if (!g_shared)
        g_shared = std::make_unique<AppStorageManager>(
            defaultSettingsFilePath(), KeychainStore::keyChainStoreWithService(KeychainStore::defaultService()));
    return *g_shared;
}

void AppStorageManager::setSharedManagerForTesting(std::unique_ptr<AppStorageManager> manager)
{
    // The old one goes outside the lock: its keychain work, finished first, may ask for the
    // shared instance (the language of an error text).
    std::unique_ptr<AppStorageManager> old;
    std::lock_guard lock(g_sharedMutex);
    old.swap(g_shared);
    g_shared = std::move(manager);
}

QString AppStorageManager::defaultSettingsFilePath()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("com.pelorin.vpn.mac")).fileName();
}

QString AppStorageManager::settingsFilePath() const
{
    return m_path;
}

void AppStorageManager::openSettings()
{
    m_settings = std::make_unique<QSettings>(m_path, QSettings::NativeFormat);
    m_settings->allKeys(); // the file is parsed lazily; status() is only meaningful after a read
    if (m_settings->status() == QSettings::FormatError) {
        // Keep the damaged file for the user instead of overwriting it with the next write.
        const QString aside = m_path + QStringLiteral(".corrupt");
        m_settings.reset();
        QFile::remove(aside);
        const bool moved = QFile::rename(m_path, aside);
        NQLog::line(QStringLiteral("|AppStorageManager| The settings file %1 is damaged; %2 Using defaults.")
                        .arg(m_path, moved ? QStringLiteral("kept it as %1.").arg(aside)
                                           : QStringLiteral("could not move it aside.")));
        m_settings = std::make_unique<QSettings>(m_path, QSettings::NativeFormat);
    } else if (m_settings->status() == QSettings::AccessError) {
        NQLog::line(
            QStringLiteral("|AppStorageManager| Cannot read the settings file %1. Using defaults.").arg(m_path));
    }
}

QVariant AppStorageManager::value(const QString &key) const
{
    std::lock_guard lock(m_mutex);
    return m_settings->value(key);
}

bool AppStorageManager::contains(const QString &key) const
{
    std::lock_guard lock(m_mutex);
    return m_settings->contains(key);
}

void AppStorageManager::setValue(const QString &key, const QVariant &value)
{
    writeValue(key, value);
}

void AppStorageManager::removeKey(const QString &key)
{
    writeValue(key, QVariant());
}

void AppStorageManager::setValueDeferred(const QString &key, const QVariant &value)
{
    std::lock_guard lock(m_mutex);
    if (value.isValid())
        m_settings->setValue(key, value);
    else
        m_settings->remove(key);
    if (m_flushScheduled)
        return;
    m_flushScheduled = true;
    MainQueue::after(kDeferredFlushMs, [this, alive = std::weak_ptr<int>(m_alive)] {
        if (alive.lock())
            flushSettings();
    });
}

void AppStorageManager::writeValue(const QString &key, const QVariant &value)
{
    std::lock_guard lock(m_mutex);
    if (value.isValid())
        m_settings->setValue(key, value);
    else
        m_settings->remove(key);
    // On disk before returning: a crash right after must not lose this or earlier writes.
    m_settings->sync();
    m_flushScheduled = false; // any deferred values went out with this write
    if (m_settings->status() != QSettings::NoError)
        NQLog::line(
            QStringLiteral("|AppStorageManager| Cannot write the settings file %1; '%2' is kept only until quit.")
                .arg(m_path, key));
}

void AppStorageManager::flush()
{
    SecretQueue::drain();
    flushSettings();
}

void AppStorageManager::flushSettings()
{
    std::lock_guard lock(m_mutex);
    m_flushScheduled = false;
    m_settings->sync();
}

bool AppStorageManager::boolForKey(const char *key) const
{
    const QVariant stored = value(QLatin1String(key));
    switch (stored.typeId()) {
    case QMetaType::Bool:
        return stored.toBool();
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return stored.toDouble() != 0.0;
    case QMetaType::QString: {
        // The settings file keeps booleans as text; anything else typed in by hand is NO.
        const QString text = stored.toString().trimmed().toLower();
        return text == QLatin1String("true") || text == QLatin1String("yes") || text == QLatin1String("1");
    }
    default:
        return false;
    }
}

int AppStorageManager::integerForKey(const char *key) const
{
    const QVariant stored = value(QLatin1String(key));
    bool ok = false;
    int number = 0;
    switch (stored.typeId()) {
    case QMetaType::Bool:
        return stored.toBool() ? 1 : 0;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::QString:
        number = stored.toString().trimmed().toInt(&ok);
        return ok ? number : 0;
    default:
        return 0;
    }
}

QString AppStorageManager::stringForKey(const char *key) const
{
    const QVariant stored = value(QLatin1String(key));
    return stored.typeId() == QMetaType::QString ? stored.toString() : QString();
}
