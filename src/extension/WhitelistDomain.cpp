#include "extension/WhitelistDomain.h"

#include "foundation/KeyedArchiver.h"
#include "foundation/KeyedUnarchiver.h"

int WhitelistDomain::whiteListType() const
{
    if (ads && tracking)
        return 0;
    if (ads)
        return 3;
    if (tracking)
        return 2;
    return 1;
}

QJsonObject WhitelistDomain::toJSON() const
{
    return {{QStringLiteral("Url"), url},
            {QStringLiteral("Timestamp"), static_cast<qint64>(static_cast<std::uint64_t>(timestamp))},
            {QStringLiteral("WhiteListType"), whiteListType()},
            {QStringLiteral("Removed"), removed ? 1 : 0}};
}

void WhitelistDomain::encodeWithCoder(KeyedArchiver &coder) const
{
    coder.encodeString(url, QStringLiteral("url"));
    coder.encodeBool(selected, QStringLiteral("selected"));
    coder.encodeBool(tracking, QStringLiteral("tracking"));
    coder.encodeBool(ads, QStringLiteral("ads"));
    coder.encodeInt64(timestamp, QStringLiteral("timestamp"));
    coder.encodeBool(removed, QStringLiteral("removed"));
}

std::optional<WhitelistDomain> WhitelistDomain::initWithCoder(const KeyedUnarchiver &coder)
{
    WhitelistDomain d;
    d.url = coder.decodeStringForKey(QStringLiteral("url"));
    d.selected = coder.decodeBoolForKey(QStringLiteral("selected"));
    d.tracking = coder.decodeBoolForKey(QStringLiteral("tracking"));
    d.ads = coder.decodeBoolForKey(QStringLiteral("ads"));
    d.timestamp = coder.decodeInt64ForKey(QStringLiteral("timestamp"));
    d.removed = coder.decodeBoolForKey(QStringLiteral("removed"));
    return d;
}
