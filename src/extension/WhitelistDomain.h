#pragma once

#include <QJsonObject>
#include <QString>

#include <cstdint>
#include <optional>

class KeyedArchiver;
class KeyedUnarchiver;

// One site on which the browser extension relaxes blocking. Kept in the settings store as a
// keyed archive per record, and sent to the extension in its wire form (toJSON).
//
// WhiteListType on the wire: 0 = ads and tracking relaxed, 1 = neither, 2 = tracking only,
// 3 = ads only; any other value reads as neither.
class WhitelistDomain {
public:
    QString url;           // lower case when made from an extension message
    bool selected = false; // user-interface mark; never on the wire
    bool tracking = false;
    bool ads = false;
    std::int64_t timestamp = 0; // the extension's own time stamp, kept as sent
    bool removed = false;

    static bool adsForType(std::int64_t type) { return type == 0 || type == 3; }
    static bool trackingForType(std::int64_t type) { return type == 0 || type == 2; }
    int whiteListType() const;
    QJsonObject toJSON() const;

    static QString archiveClassName() { return QStringLiteral("WhitelistDomain"); }
    void encodeWithCoder(KeyedArchiver &coder) const;
    static std::optional<WhitelistDomain> initWithCoder(const KeyedUnarchiver &coder);

    bool operator==(const WhitelistDomain &) const = default;
};
