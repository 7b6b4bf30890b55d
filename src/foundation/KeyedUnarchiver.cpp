#include "foundation/KeyedUnarchiver.h"

#include "foundation/KeyedArchive.h"

#include <QCborArray>
#include <QDateTime>

#include <cmath>
#include <limits>

namespace {
constexpr QCborTag kRecordTag = QCborTag(27);
} // namespace

std::optional<KeyedUnarchiver> KeyedUnarchiver::fromCbor(const QCborValue &value, NQErrorOpt *error)
{
    const QCborArray parts = value.isTag() && value.tag() == kRecordTag ? value.taggedValue().toArray() : QCborArray();
    if (parts.size() != 2 || !parts.at(0).isString() || !parts.at(1).isMap()) {
        KeyedArchive::setError(error, corruptError(QStringLiteral("expected an archived object")));
        return std::nullopt;
    }
    KeyedUnarchiver reader;
    reader.m_className = parts.at(0).toString();
    reader.m_values = parts.at(1).toMap();
    return reader;
}

bool KeyedUnarchiver::containsValueForKey(const QString &key) const
{
    return m_values.contains(key);
}

bool KeyedUnarchiver::decodeBoolForKey(const QString &key) const
{
    const QCborValue value = m_values.value(key);
    if (value.isBool())
        return value.toBool();
    if (value.isInteger())
        return value.toInteger() != 0;
    return false;
}

std::int64_t KeyedUnarchiver::decodeInt64ForKey(const QString &key) const
{
    const QCborValue value = m_values.value(key);
    if (value.isInteger())
        return value.toInteger();
    if (value.isBool())
        return value.toBool() ? 1 : 0;
    if (value.isDouble()) {
        const double d = value.toDouble();
        if (std::isnan(d))
            return 0;
        // Clamp first: converting an out-of-range double is undefined behaviour.
        if (d >= 9223372036854775807.0)
            return std::numeric_limits<std::int64_t>::max();
        if (d <= -9223372036854775808.0)
            return std::numeric_limits<std::int64_t>::min();
        return static_cast<std::int64_t>(d);
    }
    return 0;
}

std::int32_t KeyedUnarchiver::decodeInt32ForKey(const QString &key) const
{
    // Low 32 bits, like a C cast (well defined modulo 2^32 since C++20).
    return static_cast<std::int32_t>(decodeInt64ForKey(key));
}

double KeyedUnarchiver::decodeDoubleForKey(const QString &key) const
{
    const QCborValue value = m_values.value(key);
    if (value.isDouble())
        return value.toDouble();
    if (value.isInteger())
        return static_cast<double>(value.toInteger());
    return 0.0;
}

QCborValue KeyedUnarchiver::typedValue(const QString &key, QCborValue::Type type, const char *typeName) const
{
    const QCborValue value = m_values.value(key);
    if (value.isUndefined() || value.isNull())
        return QCborValue();
    if (value.type() != type) {
        failWithError(corruptError(QStringLiteral("value for key '%1' was of unexpected class (expected %2)")
                                       .arg(key, QString::fromLatin1(typeName))));
        return QCborValue();
    }
    return value;
}

QString KeyedUnarchiver::decodeStringForKey(const QString &key) const
{
    const QCborValue value = typedValue(key, QCborValue::String, "NSString");
    return value.isString() ? value.toString() : QString();
}

QByteArray KeyedUnarchiver::decodeDataForKey(const QString &key) const
{
    const QCborValue value = typedValue(key, QCborValue::ByteArray, "NSData");
    return value.isByteArray() ? value.toByteArray() : QByteArray();
}

QVariant KeyedUnarchiver::decodeObjectForKey(const QString &key) const
{
    const QCborValue value = m_values.value(key);
    if (value.isUndefined() || value.isNull())
        return QVariant();
    return plainValue(value, 0);
}

QVariant KeyedUnarchiver::plainValue(const QCborValue &value, int depth) const
{
    if (depth > kMaxNestingDepth) {
        failWithError(corruptError(QStringLiteral("values nested deeper than %1 levels").arg(kMaxNestingDepth)));
        return QVariant();
    }
    switch (value.type()) {
    case QCborValue::Integer:
        return QVariant(qint64(value.toInteger()));
    case QCborValue::Double:
        return QVariant(value.toDouble());
    case QCborValue::True:
    case QCborValue::False:
        return QVariant(value.toBool());
    case QCborValue::String:
        return QVariant(value.toString());
    case QCborValue::ByteArray:
        return QVariant(value.toByteArray());
    case QCborValue::DateTime:
        return QVariant(value.toDateTime());
    case QCborValue::Array: {
        QVariantList list;
        for (const QCborValue &element : value.toArray())
            list.append(plainValue(element, depth + 1));
        return list;
    }
    case QCborValue::Map: {
        QVariantMap map;
        const QCborMap source = value.toMap();
        for (auto it = source.cbegin(); it != source.cend(); ++it) {
            if (!it.key().isString()) {
                failWithError(corruptError(QStringLiteral("dictionary key is not a string")));
                return QVariant();
            }
            map.insert(it.key().toString(), plainValue(it.value(), depth + 1));
        }
        return map;
    }
    case QCborValue::Null:
        return QVariant();
    default:
        failWithError(corruptError(QStringLiteral("unsupported value in archive")));
        return QVariant();
    }
}

bool KeyedUnarchiver::expectClass(const QString &className) const
{
    if (m_className == className)
        return true;
    failWithError(corruptError(QStringLiteral("value was of unexpected class '%1'. Allowed classes are '{(%2)}'.")
                                   .arg(m_className, className)));
    return false;
}

void KeyedUnarchiver::failWithError(const NQError &error) const
{
    if (!*m_error)
        *m_error = error;
}

NQError KeyedUnarchiver::corruptError(const QString &reason)
{
    return NQError(KeyedArchive::kCocoaErrorDomain, KeyedArchive::kCoderReadCorruptError,
                   {{NQError::kLocalizedDescriptionKey,
                     QStringLiteral("The data couldn’t be read because it isn’t in the correct format.")},
                    {QStringLiteral("NSDebugDescription"), reason}});
}
