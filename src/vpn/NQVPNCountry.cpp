#include "vpn/NQVPNCountry.h"

#include "foundation/KeyedArchiver.h"
#include "foundation/KeyedUnarchiver.h"

#include <cmath>
#include <limits>

namespace {
bool isAbsent(const QVariant &value)
{
    return !value.isValid() || value.isNull();
}

// The integer a JSON value stands for, read the way a number or a decimal text is read:
// a number is truncated, a text gives its leading integer ("17", " -3x"), anything else 0.
qint64 integerValue(const QVariant &value)
{
    if (isAbsent(value))
        return 0;
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString().trimmed();
        qsizetype end = 0;
        if (end < text.size() && (text[end] == u'+' || text[end] == u'-'))
            ++end;
        while (end < text.size() && text[end].isDigit())
            ++end;
        bool ok = false;
        const qint64 number = text.left(end).toLongLong(&ok);
        return ok ? number : 0;
    }
    if (value.typeId() == QMetaType::Bool || value.typeId() == QMetaType::Int ||
        value.typeId() == QMetaType::LongLong || value.typeId() == QMetaType::UInt ||
        value.typeId() == QMetaType::ULongLong)
        return value.toLongLong();
    if (value.typeId() == QMetaType::Double) {
        const double d = value.toDouble();
        if (!std::isfinite(d))
            return 0;
        if (d >= 9.2e18 || d <= -9.2e18)
            return d > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
        return static_cast<qint64>(d);
    }
    return 0;
}

// Truth of a JSON value: a non-zero number, or a text starting with Y, y, T, t or a
// non-zero digit (after blanks, a sign and leading zeros).
bool boolValue(const QVariant &value)
{
    if (isAbsent(value))
        return false;
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString().trimmed();
        qsizetype i = 0;
        if (i < text.size() && (text[i] == u'+' || text[i] == u'-'))
            ++i;
        while (i < text.size() && text[i] == u'0')
            ++i;
        if (i >= text.size())
            return false;
        const QChar c = text[i];
        return c == u'Y' || c == u'y' || c == u'T' || c == u't' || (c >= u'1' && c <= u'9');
    }
    if (value.typeId() == QMetaType::Double)
        return value.toDouble() != 0.0;
    return value.canConvert<qint64>() && value.toLongLong() != 0;
}

QString stringValue(const QVariant &value)
{
    if (isAbsent(value))
        return {};
    if (value.typeId() == QMetaType::QString)
        return value.toString();
    // A number where a text was expected: keep its text rather than lose it.
    return value.canConvert<QString>() ? value.toString() : QString();
}

void takeNonZero(qint64 &field, const QVariant &value)
{
    if (const qint64 number = integerValue(value); number != 0)
        field = number;
}
} // namespace

NQVPNCountry NQVPNCountry::initWithDictionary(const QVariantMap &dictionary)
{
    NQVPNCountry country;
    takeNonZero(country.countryId, dictionary.value(QStringLiteral("id")));
    takeNonZero(country.countryNumeric, dictionary.value(QStringLiteral("countryNumeric")));
    takeNonZero(country.dateCreated, dictionary.value(QStringLiteral("dateCreated")));
    takeNonZero(country.dateModified, dictionary.value(QStringLiteral("dateModified")));
    country.continent = stringValue(dictionary.value(QStringLiteral("continent")));
    country.countryIso = stringValue(dictionary.value(QStringLiteral("countryIso")));
    country.countryName = stringValue(dictionary.value(QStringLiteral("countryName")));
    country.serverAddress = stringValue(dictionary.value(QStringLiteral("serverAddress")));
    country.enabled = boolValue(dictionary.value(QStringLiteral("enabled")));
    country.isDefault = boolValue(dictionary.value(QStringLiteral("isDefault")));
    return country;
}

void NQVPNCountry::encodeWithCoder(KeyedArchiver &coder) const
{
    coder.encodeString(countryName, QStringLiteral("countryName"));
    coder.encodeInt64(countryId, QStringLiteral("countryId"));
    coder.encodeInt64(countryNumeric, QStringLiteral("countryNumeric"));
    coder.encodeString(continent, QStringLiteral("continent"));
    coder.encodeString(countryIso, QStringLiteral("countryIso"));
    coder.encodeBool(clusterFavourited, QStringLiteral("clusterFavourited"));
    coder.encodeBool(clusterSelected, QStringLiteral("clusterSelected"));
    coder.encodeBool(enabled, QStringLiteral("enabled"));
    coder.encodeBool(isDefault, QStringLiteral("isDefault"));
    coder.encodeString(serverAddress, QStringLiteral("serverAddress"));
}

std::optional<NQVPNCountry> NQVPNCountry::initWithCoder(const KeyedUnarchiver &coder)
{
    NQVPNCountry country;
    country.countryName = coder.decodeStringForKey(QStringLiteral("countryName"));
    country.countryId = coder.decodeInt32ForKey(QStringLiteral("countryId"));
    country.countryNumeric = coder.decodeInt32ForKey(QStringLiteral("countryNumeric"));
    country.continent = coder.decodeStringForKey(QStringLiteral("continent"));
    country.countryIso = coder.decodeStringForKey(QStringLiteral("countryIso"));
    country.clusterFavourited = coder.decodeBoolForKey(QStringLiteral("clusterFavourited"));
    country.clusterSelected = coder.decodeBoolForKey(QStringLiteral("clusterSelected"));
    country.enabled = coder.decodeBoolForKey(QStringLiteral("enabled"));
    country.isDefault = coder.decodeBoolForKey(QStringLiteral("isDefault"));
    country.serverAddress = coder.decodeStringForKey(QStringLiteral("serverAddress"));
    return country;
}
