#include "extension/ExtensionStorage.h"

#include "foundation/KeyedArchive.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <exception>

namespace {
constexpr auto kAdsBlocker = "AdsBlocker";
constexpr auto kName = "NAME";
constexpr auto kTimestamp = "TIMESTAMP";

// A JSON number with an integral value that fits 64 bits; anything else (text, a fraction,
// a boolean, null) is no integer.
std::optional<qint64> integerOf(const QJsonValue &value)
{
    // toInteger gives its default back for anything it cannot read exactly.
    const qint64 read = value.toInteger(0);
    if (read != value.toInteger(1))
        return std::nullopt;
    return read;
}
} // namespace

ExtensionStorage::ExtensionStorage(AppStorageManager &storage) : m_storage(storage) {}

ExtensionStorage::~ExtensionStorage()
{
    flush();
}

bool ExtensionStorage::adsBlockerEnabled() const
{
    return m_storage.value(QString::fromLatin1(kAdsBlocker)).toBool();
}

void ExtensionStorage::storeAdsBlockerEnabled(bool value)
{
    m_storage.setValue(QString::fromLatin1(kAdsBlocker), value);
}

std::optional<QList<WhitelistDomain>> ExtensionStorage::blockerWhitelist() const
{
    const QVariant stored = m_storage.value(QString::fromLatin1(AppStorageManager::kBlockerWhitelistKey));
    if (!stored.isValid())
        return std::nullopt;
    QList<WhitelistDomain> list;
    for (const QVariant &block : stored.toList()) {
        if (auto domain = KeyedArchive::unarchivedObject<WhitelistDomain>(block.toByteArray()))
            list << *domain;
    }
    return list;
}

void ExtensionStorage::storeBlockerWhitelist(const QList<WhitelistDomain> &list)
{
    QVariantList blocks;
    for (const WhitelistDomain &domain : list)
        blocks << KeyedArchive::archivedData(domain);
    m_storage.setValue(QString::fromLatin1(AppStorageManager::kBlockerWhitelistKey), blocks);
}

void ExtensionStorage::mergeWhitelist(const QJsonArray &entries)
{
    QList<WhitelistDomain> stored = blockerWhitelist().value_or(QList<WhitelistDomain>());
    QList<WhitelistDomain> added;
    for (const QJsonValue &value : entries) {
        const QJsonObject entry = value.toObject();
        const QJsonValue urlValue = entry.value(QLatin1String("Url"));
        const std::optional<qint64> type = integerOf(entry.value(QLatin1String("WhiteListType")));
        const std::optional<qint64> ts = integerOf(entry.value(QLatin1String("Timestamp")));
        // Read loosely, a "2" or a 1.5 would be type 0, which relaxes both protections.
        if (!urlValue.isString() || !type || !ts) {
            NQLog::line(QStringLiteral("|BrowserExtension| ignored a whitelist entry of the wrong types: %1")
                            .arg(QString::fromUtf8(QJsonDocument(entry).toJson(QJsonDocument::Compact))));
            continue;
        }
        const QString url = urlValue.toString();
        // Matching is on the url as received while stored urls are lower case, so a url with
        // capitals is added again at every merge; the extension has always been answered so.
        auto it = std::find_if(stored.begin(), stored.end(), [&](const WhitelistDomain &d) { return d.url == url; });
        if (it != stored.end()) {
            if (it->timestamp < *ts) {
                it->timestamp = *ts;
                it->ads = WhitelistDomain::adsForType(*type);
                it->tracking = WhitelistDomain::trackingForType(*type);
            }
            continue;
        }
        WhitelistDomain fresh;
        fresh.url = url.toLower();
        fresh.timestamp = *ts;
        fresh.ads = WhitelistDomain::adsForType(*type);
        fresh.tracking = WhitelistDomain::trackingForType(*type);
        added << fresh;
    }
    storeBlockerWhitelist(stored + added);
}

QVariantMap ExtensionStorage::extensionStatistics() const
{
    return m_storage.value(QString::fromLatin1(AppStorageManager::kExtensionStatisticsKey)).toMap();
}

void ExtensionStorage::storeExtensionStatistics(const QVariantMap &statistics)
{
    try {
        QVariantMap copy = statistics;
        for (auto it = copy.begin(); it != copy.end(); ++it) {
            if (it->isNull() || it->userType() == QMetaType::Nullptr)
                *it = QString::fromLatin1("");
        }
        m_storage.setValue(QString::fromLatin1(AppStorageManager::kExtensionStatisticsKey), copy);
    } catch (const std::exception &e) {
        NQLog::line(QStringLiteral("|AppStorageManager| storeExtensionStatistics: failed exception: '%1'.")
                        .arg(QString::fromLocal8Bit(e.what())));
    }
}

QVariantMap ExtensionStorage::blockedDomains() const
{
    if (!m_blockedDomains)
        m_blockedDomains = m_storage.value(QString::fromLatin1(AppStorageManager::kBlockedDomainsKey)).toMap();
    return *m_blockedDomains;
}

void ExtensionStorage::storeBlockedDomains(const QVariantMap &domains)
{
    m_blockedDomains = domains;
    m_blockedDomainsDirty = false;
    m_storage.setValue(QString::fromLatin1(AppStorageManager::kBlockedDomainsKey), domains);
}

void ExtensionStorage::removeBlockedDomains()
{
    m_blockedDomains = QVariantMap();
    m_blockedDomainsDirty = false;
    m_storage.removeKey(QString::fromLatin1(AppStorageManager::kBlockedDomainsKey));
}

void ExtensionStorage::countBlockedDomain(const QString &domain)
{
    blockedDomains(); // loads the cache
    QVariant &count = (*m_blockedDomains)[domain];
    count = count.toLongLong() + 1;
    m_blockedDomainsDirty = true;
    if (m_writeScheduled)
        return;
    m_writeScheduled = true;
    MainQueue::after(kBlockedDomainsWriteDelayMs, [this, alive = std::weak_ptr<int>(m_alive)] {
        if (!alive.lock())
            return;
        m_writeScheduled = false;
        flush();
    });
}

void ExtensionStorage::flush()
{
    if (m_blockedDomainsDirty && m_blockedDomains)
        storeBlockedDomains(*m_blockedDomains);
}

void ExtensionStorage::storeExtensionBlockedCookie(const QString &name)
{
    QVariantList cookies = extensionBlockedCookies();
    const QString lower = name.toLower();
    const QVariantMap entry{{QString::fromLatin1(kName), lower},
                            {QString::fromLatin1(kTimestamp), QDateTime::currentMSecsSinceEpoch() / 1000.0}};
    auto it = std::find_if(cookies.begin(), cookies.end(),
                           [&](const QVariant &c) { return c.toMap().value(QString::fromLatin1(kName)) == lower; });
    if (it != cookies.end())
        *it = entry;
    else
        cookies << entry;
    storeExtensionBlockedCookies(cookies);
}

void ExtensionStorage::storeExtensionBlockedCookies(const QVariantList &cookies)
{
    m_storage.setValue(QString::fromLatin1(AppStorageManager::kExtensionBlockedCookiesKey), cookies);
}

QVariantList ExtensionStorage::extensionBlockedCookies() const
{
    return m_storage.value(QString::fromLatin1(AppStorageManager::kExtensionBlockedCookiesKey)).toList();
}
