#pragma once

#include "extension/WhitelistDomain.h"
#include "foundation/AppStorageManager.h"

#include <QJsonArray>
#include <QList>
#include <QVariantMap>

#include <memory>
#include <optional>

// The settings the extension bridge keeps in the settings store ("AdsBlocker",
// "BlockerWhitelist", "ExtensionStatistics", "BlockedDomains", "ExtensionBlockedCookies"),
// with the store's operation names. Lives beside the store because the store must not know
// the bridge. Main thread only.
//
// Blocked-domain counts arrive for every blocked request, so the map is kept in memory and
// written at most once per kBlockedDomainsWriteDelayMs (and by flush()): a message costs the
// same however many domains are stored.
class ExtensionStorage {
public:
    static constexpr int kBlockedDomainsWriteDelayMs = 1000;

    explicit ExtensionStorage(AppStorageManager &storage);
    ~ExtensionStorage(); // writes pending counts

    bool adsBlockerEnabled() const;
    void storeAdsBlockerEnabled(bool value);

    // nullopt when the key is absent; records that fail to decode are skipped.
    std::optional<QList<WhitelistDomain>> blockerWhitelist() const;
    void storeBlockerWhitelist(const QList<WhitelistDomain> &list);
    // Merges entries {"Url", "WhiteListType", "Timestamp"} into the stored list and stores it.
    void mergeWhitelist(const QJsonArray &entries);

    QVariantMap extensionStatistics() const;
    // Top-level nulls become "" (the store holds no nulls); nested values are kept as they are.
    void storeExtensionStatistics(const QVariantMap &statistics);

    QVariantMap blockedDomains() const;
    void storeBlockedDomains(const QVariantMap &domains);
    void removeBlockedDomains();
    // Adds one to the domain's count (1 when new).
    void countBlockedDomain(const QString &domain);

    // Records or refreshes {"NAME": lower-cased name, "TIMESTAMP": now in seconds}.
    void storeExtensionBlockedCookie(const QString &name);
    void storeExtensionBlockedCookies(const QVariantList &cookies);
    QVariantList extensionBlockedCookies() const;

    // Writes pending blocked-domain counts now.
    void flush();

private:
    AppStorageManager &m_storage;
    mutable std::optional<QVariantMap> m_blockedDomains; // cache, loaded on first use
    bool m_blockedDomainsDirty = false;
    bool m_writeScheduled = false;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};
