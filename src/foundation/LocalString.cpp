#include "foundation/LocalString.h"

#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/LanguageNames.h"
#include "foundation/Log.h"

#include <QTranslator>

#include <memory>
#include <mutex>

namespace {

const OsLog &managerLog()
{
    static const OsLog log("Manager", "com.pelorin.vpn.mac.localization");
    return log;
}

// One table is kept loaded: the one asked for last, which is nearly always the current one.
struct LocalizationState {
    std::mutex mutex;
    LocalString::Overrides overrides;
    std::optional<QString> deviceCode;
    QString loadedCode;
    std::unique_ptr<QTranslator> table;
};

LocalizationState &state()
{
    static LocalizationState s;
    return s;
}

QString withAppName(QString text)
{
    return text.replace(QLatin1String(LocalString::kAppNamePlaceholder), QLatin1String(LocalString::kAppName));
}

QString tablePath(const QString &code)
{
    return QStringLiteral(":/translations/pelorin_%1.qm").arg(code);
}

// Caller holds the state mutex.
QString lookUp(LocalizationState &s, const QString &key, const QString &code)
{
    if (s.loadedCode != code || !s.table) {
        auto table = std::make_unique<QTranslator>();
        // A code without a table (never shipped) leaves the table empty: keys come back as-is.
        if (!code.isEmpty() && !table->load(tablePath(code)))
            managerLog().error(QStringLiteral("No text table for language '%1'.").arg(code));
        s.table = std::move(table);
        s.loadedCode = code;
    }
    // Tables are id-based: the key is the message id, with no context.
    const QString text = s.table->translate(nullptr, key.toUtf8().constData());
    return text.isEmpty() ? key : text;
}

QString firstPreferredLanguageCode(const QStringList &preferred)
{
    const QString first = preferred.isEmpty() ? QString() : preferred.first().trimmed();
    if (first.isEmpty() || first == QLatin1String("C") || first == QLatin1String("POSIX"))
        return QLatin1String(LocalString::kFallbackLanguageCode);
    // Language tags separate the region with "-", Linux locale names with "_".
    QString code = first.section(u'-', 0, 0).section(u'_', 0, 0);
    return code.isEmpty() ? QLatin1String(LocalString::kFallbackLanguageCode) : code;
}

} // namespace

QString LocalString::forKey(const QString &key)
{
    return forKeyInLanguage(key, appLanguageCode());
}

QString LocalString::forKeyInLanguage(const QString &key, const QString &code)
{
    if (key.isEmpty())
        return key;
    auto &s = state();
    std::lock_guard lock(s.mutex);
    return withAppName(lookUp(s, key, code));
}

QString LocalString::appLanguageCode()
{
    AppStorageManager &store = AppStorageManager::sharedManager();
    const QString stored = store.appLanguageCode();
    if (!stored.isEmpty())
        return stored;
    const QString device = deviceLanguageCode();
    if (supportedLanguageCodes().contains(device)) {
        managerLog().debug(QStringLiteral("Use AppLanguageCode from AppConfig ('%1')").arg(device));
        store.storeAppLanguageCode(device);
        return device;
    }
    const QString fallback = QLatin1String(kFallbackLanguageCode);
    store.storeAppLanguageCode(fallback);
    return fallback;
}

void LocalString::setAppLanguageCode(const QString &code)
{
    managerLog().info(QStringLiteral("Set AppLanguageCode: '%1'.").arg(code));
    AppStorageManager::sharedManager().storeAppLanguageCode(code);
}

QString LocalString::deviceLanguageCode()
{
    auto &s = state();
    std::lock_guard lock(s.mutex);
    if (!s.deviceCode) {
        const QStringList preferred = s.overrides.preferredLanguages.value_or(QLocale::system().uiLanguages());
        managerLog().info(QStringLiteral("Device languages = '%1'").arg(preferred.join(QLatin1String(", "))));
        s.deviceCode = firstPreferredLanguageCode(preferred);
    }
    return *s.deviceCode;
}

QString LocalString::appLanguageName()
{
    const QString name = languageNameForCode(appLanguageCode());
    return name.isEmpty() ? QStringLiteral("English") : name;
}

QString LocalString::languageNameForCode(const QString &code)
{
    QLocale userLocale;
    {
        auto &s = state();
        std::lock_guard lock(s.mutex);
        userLocale = s.overrides.userLocale.value_or(QLocale::system());
    }
    const QString name = LanguageNames::localeNameForCode(code, userLocale);
    if (name.isEmpty())
        return name;
    const QString native = LanguageNames::nativeNameForEnglishName(name);
    if (!native.isEmpty())
        return native;
    managerLog().error(QStringLiteral("WARNING. Missing localization for LanguageName='%1''").arg(name));
    return name;
}

QStringList LocalString::supportedLanguageCodes()
{
    {
        auto &s = state();
        std::lock_guard lock(s.mutex);
        if (s.overrides.supportedCodes)
            return *s.overrides.supportedCodes;
    }
    return AppConfig::appLocalizations();
}

void LocalString::setOverridesForTesting(const Overrides &overrides)
{
    auto &s = state();
    std::lock_guard lock(s.mutex);
    s.overrides = overrides;
    s.deviceCode.reset();
    s.table.reset();
    s.loadedCode.clear();
}
