#pragma once

#include "foundation/NQError.h"

#include <QCborArray>
#include <QCborMap>
#include <QCborValue>
#include <QList>
#include <QString>
#include <QVariant>

#include <cstdint>

// Writes one record of the keyed-archive format: a class name and a map of keyed values.
// A record type T is archivable when it provides
//   static QString archiveClassName();
//   void encodeWithCoder(KeyedArchiver &coder) const;
//   static std::optional<T> initWithCoder(const KeyedUnarchiver &coder);
// Use KeyedArchive::archivedData() rather than this class directly.
class KeyedArchiver {
public:
    explicit KeyedArchiver(QString className);

    void encodeBool(bool value, const QString &key);
    void encodeInt32(std::int32_t value, const QString &key);
    void encodeInt64(std::int64_t value, const QString &key);
    void encodeDouble(double value, const QString &key);
    // A null string is nil: the key is left out, and decodes as null.
    void encodeString(const QString &value, const QString &key);
    void encodeData(const QByteArray &value, const QString &key);
    // A plain value: bool, integer, double, string, bytes, date-time, string list, and lists
    // and string-keyed maps of these. An invalid QVariant is nil (key left out). Any other
    // type makes the whole archive fail (see error()).
    void encodeObject(const QVariant &value, const QString &key);

    // A nested archivable record.
    template <class T> void encodeObject(const T &object, const QString &key) { m_values.insert(key, archive(object)); }
    // An array of archivable records.
    template <class T> void encodeArray(const QList<T> &objects, const QString &key)
    {
        m_values.insert(key, archiveList(objects));
    }

    // Set once the first value could not be encoded; archiving then yields no data.
    const NQErrorOpt &error() const { return m_error; }

    // The record as a CBOR value (tag 27: [class name, values]).
    QCborValue toCbor() const;

    template <class T> QCborValue archive(const T &object)
    {
        KeyedArchiver child(T::archiveClassName());
        object.encodeWithCoder(child);
        adoptError(child.m_error);
        return child.toCbor();
    }
    template <class T> QCborValue archiveList(const QList<T> &objects)
    {
        QCborArray array;
        for (const T &object : objects)
            array.append(archive(object));
        return array;
    }

private:
    void adoptError(const NQErrorOpt &error);
    std::optional<QCborValue> plainValue(const QVariant &value, int depth);

    QString m_className;
    QCborMap m_values;
    NQErrorOpt m_error;
};
