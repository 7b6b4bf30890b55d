#pragma once

#include "foundation/NQError.h"

#include <QCborArray>
#include <QCborMap>
#include <QCborValue>
#include <QList>
#include <QString>
#include <QVariant>

#include <cstdint>
#include <memory>
#include <optional>

// Reads one record of the keyed-archive format. Decoding a missing key gives 0 / false /
// null, as a keyed unarchiver does. A value of the wrong type for the call gives the same
// "missing" answer; for strings, data and nested records it also marks the whole archive as
// failed (error()), because the record's class contract is broken.
//
// Integer reads accept any stored integer: decodeInt32ForKey of a value written with
// encodeInt64 keeps the low 32 bits, exactly like a C cast to int32_t (so 2^32 + 5 reads as 5
// and 2^31 as -2^31). A stored double is truncated toward zero and clamped to the range.
class KeyedUnarchiver {
public:
    // Nesting limit for decoded plain values: an archive is a flat record with small lists, so
    // anything deeper is damage or an attack on the stack.
    static constexpr int kMaxNestingDepth = 64;

    // A record from its CBOR form; nullopt (and *error set) when `value` is not a record.
    static std::optional<KeyedUnarchiver> fromCbor(const QCborValue &value, NQErrorOpt *error);

    // An empty record that decodes the archive's root (used by KeyedArchive).
    static KeyedUnarchiver topLevel() { return KeyedUnarchiver(); }

    const QString &className() const { return m_className; }

    bool containsValueForKey(const QString &key) const;
    bool decodeBoolForKey(const QString &key) const;
    std::int32_t decodeInt32ForKey(const QString &key) const;
    std::int64_t decodeInt64ForKey(const QString &key) const;
    double decodeDoubleForKey(const QString &key) const;
    QString decodeStringForKey(const QString &key) const;
    QByteArray decodeDataForKey(const QString &key) const;
    // A plain value (see KeyedArchiver::encodeObject); invalid QVariant where missing.
    QVariant decodeObjectForKey(const QString &key) const;

    // A nested record of class T; nullopt where missing or of another class (the latter fails
    // the archive).
    template <class T> std::optional<T> decodeObjectOfClass(const QString &key) const
    {
        const QCborValue value = m_values.value(key);
        if (value.isUndefined() || value.isNull())
            return std::nullopt;
        return decodeRecord<T>(value);
    }
    // An array of records of class T; nullopt where missing or when any element fails.
    template <class T> std::optional<QList<T>> decodeArrayOfClass(const QString &key) const
    {
        const QCborValue value = m_values.value(key);
        if (value.isUndefined() || value.isNull())
            return std::nullopt;
        return decodeRecordList<T>(value);
    }

    // Records the first failure; the archive as a whole then decodes as nil.
    void failWithError(const NQError &error) const;
    const NQErrorOpt &error() const { return *m_error; }

    template <class T> std::optional<T> decodeRecord(const QCborValue &value) const
    {
        NQErrorOpt error;
        auto child = fromCbor(value, &error);
        if (!child) {
            failWithError(*error);
            return std::nullopt;
        }
        child->m_error = m_error;
        if (!child->expectClass(T::archiveClassName()))
            return std::nullopt;
        std::optional<T> object = T::initWithCoder(*child);
        if (!object && !*m_error)
            failWithError(
                corruptError(QStringLiteral("could not decode object of class '%1'").arg(T::archiveClassName())));
        return m_error->has_value() ? std::nullopt : object;
    }
    template <class T> std::optional<QList<T>> decodeRecordList(const QCborValue &value) const
    {
        if (!value.isArray()) {
            failWithError(corruptError(QStringLiteral("expected an array")));
            return std::nullopt;
        }
        QList<T> list;
        for (const QCborValue &element : value.toArray()) {
            std::optional<T> object = decodeRecord<T>(element);
            if (!object)
                return std::nullopt;
            list.append(std::move(*object));
        }
        return list;
    }

    // True when this record is of `className`; otherwise fails the archive.
    bool expectClass(const QString &className) const;

    // "The data couldn’t be read because it isn’t in the correct format." with `reason`.
    static NQError corruptError(const QString &reason);

private:
    KeyedUnarchiver() = default;
    QVariant plainValue(const QCborValue &value, int depth) const;
    QCborValue typedValue(const QString &key, QCborValue::Type type, const char *typeName) const;

    QString m_className;
    QCborMap m_values;
    std::shared_ptr<NQErrorOpt> m_error = std::make_shared<NQErrorOpt>();
};
