#include "foundation/KeyedArchiver.h"

#include "foundation/KeyedArchive.h"

#include <QCborArray>
#include <QDateTime>

namespace {
// Tag 27: "object with type name and constructor arguments"; marks a record among plain maps.
constexpr QCborTag kRecordTag = QCborTag(27);
} // namespace

KeyedArchiver::KeyedArchiver(QString className) : m_className(std::move(className)) {}

void KeyedArchiver::encodeBool(bool value, const QString &key)
{
    m_values.insert(key, value);
}

void KeyedArchiver::encodeInt32(std::int32_t value, const QString &key)
{
    m_values.insert(key, qint64(value));
}

void KeyedArchiver::encodeInt64(std::int64_t value, const QString &key)
{
    m_values.insert(key, qint64(value));
}

void KeyedArchiver::encodeDouble(double value, const QString &key)
{
    m_values.insert(key, value);
}

void KeyedArchiver::encodeString(const QString &value, const QString &key)
{
    if (value.isNull())
        m_values.remove(key);
    else
        m_values.insert(key, value);
}

void KeyedArchiver::encodeData(const QByteArray &value, const QString &key)
{
    if (value.isNull())
        m_values.remove(key);
    else
        m_values.insert(key, value);
}

void KeyedArchiver::encodeObject(const QVariant &value, const QString &key)
{
    if (!value.isValid() || value.isNull()) {
        m_values.remove(key);
        return;
    }
    if (std::optional<QCborValue> encoded = plainValue(value, 0)) {
        m_values.insert(key, *encoded);
        return;
    }
    adoptError(NQError(
        KeyedArchive::kCocoaErrorDomain, KeyedArchive::kCoderInvalidValueError,
        {{NQError::kLocalizedDescriptionKey, QStringLiteral("The value for key '%1' of class '%2' cannot be archived.")
                                                 .arg(key, QString::fromLatin1(value.typeName()))}}));
}

std::optional<QCborValue> KeyedArchiver::plainValue(const QVariant &value, int depth)
{
    if (depth > KeyedUnarchiver::kMaxNestingDepth)
        return std::nullopt;
    switch (value.typeId()) {
    case QMetaType::Bool:
        return QCborValue(value.toBool());
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::Long:
    case QMetaType::Short:
    case QMetaType::UShort:
        return QCborValue(value.toLongLong());
    case QMetaType::Double:
    case QMetaType::Float:
        return QCborValue(value.toDouble());
    case QMetaType::QString:
        return QCborValue(value.toString());
    case QMetaType::QByteArray:
        return QCborValue(value.toByteArray());
    case QMetaType::QDateTime:
        return QCborValue(value.toDateTime());
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        QCborArray array;
        for (const QVariant &element : value.toList()) {
            std::optional<QCborValue> encoded = plainValue(element, depth + 1);
            if (!encoded)
                return std::nullopt;
            array.append(*encoded);
        }
        return QCborValue(array);
    }
    case QMetaType::QVariantMap: {
        QCborMap map;
        const QVariantMap source = value.toMap();
        for (auto it = source.cbegin(); it != source.cend(); ++it) {
            std::optional<QCborValue> encoded = plainValue(it.value(), depth + 1);
            if (!encoded)
                return std::nullopt;
            map.insert(it.key(), *encoded);
        }
        return QCborValue(map);
    }
    default:
        if (!value.isValid() || value.isNull())
            return QCborValue(nullptr);
        return std::nullopt;
    }
}

QCborValue KeyedArchiver::toCbor() const
{
    return QCborValue(kRecordTag, QCborArray{m_className, m_values});
}

void KeyedArchiver::adoptError(const NQErrorOpt &error)
{
    if (error && !m_error)
        m_error = error;
}
