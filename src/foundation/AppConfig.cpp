#include "foundation/AppConfig.h"

#include "foundation/BundleExtended.h"
#include "foundation/DictionaryMerge.h"
#include "foundation/NQConfig.h"
#include "foundation/PropertyList.h"
#include "platform/Platform.h"

namespace {

QVariantMap loadResource(const QString &resourcesDirectory, const char *name)
{
    if (resourcesDirectory.isEmpty())
        return {};
    return PropertyList::dictionaryFromFile(resourcesDirectory + QLatin1Char('/') + QLatin1String(name))
        .value_or(QVariantMap());
}

} // namespace

QVariantMap AppConfig::configs()
{
    const QString resources = Platform::instance().resourcesDirectory();
    return DictionaryMerge::dictionaryByExtendingWithDictionary(loadResource(resources, "CommonConfig.plist"),
                                                                loadResource(resources, "ReleaseConfig.plist"));
}

QString AppConfig::configString(const char *key)
{
    const QVariant value = configs().value(QLatin1String(key));
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

QString AppConfig::appVersion()
{
    return BundleExtended::stringForKey(BundleExtended::kShortVersionKey);
}

qint64 AppConfig::appVersionNumber()
{
    // The string-to-integer rule: leading blanks, an optional sign, then digits up to the first
    // other character.
    const QString text = appVersion().trimmed();
    qsizetype end = 0;
    if (end < text.size() && (text[end] == QLatin1Char('-') || text[end] == QLatin1Char('+')))
        ++end;
    while (end < text.size() && text[end] >= QLatin1Char('0') && text[end] <= QLatin1Char('9'))
        ++end;
    bool ok = false;
    const qint64 number = text.left(end).toLongLong(&ok);
    return ok ? number : 0;
}

QString AppConfig::copyright()
{
    return BundleExtended::stringForKey(BundleExtended::kCopyrightKey);
}

QStringList AppConfig::appLocalizations()
{
    const QVariant value = configs().value(QLatin1String(kLocalizationsKey));
    return value.typeId() == QMetaType::QVariantList ? value.toStringList() : QStringList();
}

QString AppConfig::appDataURL()
{
    const QString support = Platform::instance().applicationSupportDirectory();
    if (support.isEmpty())
        return {};
    return support + QLatin1Char('/') + NQConfig::shared().appBundleID;
}

QString AppConfig::privacyPolicyUrl()
{
    return configString(kPrivacyPolicyUrlKey);
}
QString AppConfig::eulaUrl()
{
    return configString(kEulaUrlKey);
}
QString AppConfig::supportUrl()
{
    return configString(kSupportUrlKey);
}
QString AppConfig::uninstallUrl()
{
    return configString(kUninstallUrlKey);
}
QString AppConfig::updateUrlDirect()
{
    return configString(kUpdateUrlDirectKey);
}
QString AppConfig::updateUrlLatestVersion()
{
    return configString(kUpdateUrlLatestVersionKey);
}
QString AppConfig::hostUrl()
{
    return configString(kHostUrlKey);
}
QString AppConfig::sendLogsEmail()
{
    return configString(kSendLogsEmailKey);
}
QString AppConfig::labelID()
{
    return QStringLiteral("20014");
}
QString AppConfig::chromeExtensionsID()
{
    return QStringLiteral("kembcdlbgbcnnchcnbdhbmbhbejnedjf");
}
