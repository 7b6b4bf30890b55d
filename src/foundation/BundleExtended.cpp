#include "foundation/BundleExtended.h"

#include "foundation/BundleInfo.h"

#include <mutex>

namespace {

std::mutex g_mutex;
std::optional<QVariantMap> g_override;

QVariantMap builtInfo()
{
    return {
        {QLatin1String(BundleExtended::kShortVersionKey), QStringLiteral(PELORIN_BUNDLE_SHORT_VERSION)},
        {QLatin1String(BundleExtended::kVersionKey), QStringLiteral(PELORIN_BUNDLE_VERSION)},
        {QLatin1String(BundleExtended::kNameKey), QStringLiteral(PELORIN_BUNDLE_NAME)},
        {QLatin1String(BundleExtended::kIdentifierKey), QStringLiteral(PELORIN_BUNDLE_IDENTIFIER)},
        {QLatin1String(BundleExtended::kCopyrightKey), QString::fromUtf8(PELORIN_BUNDLE_COPYRIGHT)},
    };
}

} // namespace

namespace BundleExtended {

QVariantMap infoDictionary()
{
    std::lock_guard lock(g_mutex);
    return g_override ? *g_override : builtInfo();
}

void setInfoDictionaryForTesting(std::optional<QVariantMap> info)
{
    std::lock_guard lock(g_mutex);
    g_override = std::move(info);
}

QString stringForKey(const char *key)
{
    const QVariant value = infoDictionary().value(QLatin1String(key));
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

QString appVersionString()
{
    return QStringLiteral("%1.%2").arg(stringForKey(kShortVersionKey), stringForKey(kVersionKey));
}

} // namespace BundleExtended
