#pragma once

#include "foundation/KeyedArchiver.h"
#include "foundation/KeyedUnarchiver.h"

#include <QByteArray>
#include <QList>

#include <optional>

// The one keyed-archive format of the application: records (a class name and keyed values,
// see KeyedArchiver) serialised as CBOR inside an envelope with a format marker and version:
//   { "format": "PelorinKeyedArchive", "version": 1, "root": <record or array of records> }
// Data that is not such an archive, that is too large, or whose root record is of another
// class decodes as nullopt with an error in NSCocoaErrorDomain (code 4864); nothing crashes.
namespace KeyedArchive {

inline constexpr auto kFormatMarker = "PelorinKeyedArchive";
inline constexpr int kFormatVersion = 1;
// Archives live in the settings file, which is read whole at every start; the largest real
// one (the extension's lists) is far below this, so anything bigger is damage.
inline constexpr qsizetype kMaxArchiveBytes = 8 * 1024 * 1024;

inline constexpr auto kCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr int kCoderReadCorruptError = 4864;
inline constexpr int kCoderInvalidValueError = 4866;

// Envelope helpers shared by the templates below.
QByteArray wrapRoot(const QCborValue &root);
std::optional<QCborValue> unwrapRoot(const QByteArray &data, NQErrorOpt *error);
void setError(NQErrorOpt *out, const NQErrorOpt &error);

// The archive of `object`; empty data and *error set when a value could not be encoded.
template <class T> QByteArray archivedData(const T &object, NQErrorOpt *error = nullptr)
{
    KeyedArchiver archiver(T::archiveClassName());
    const QCborValue root = archiver.archive(object);
    setError(error, archiver.error());
    return archiver.error() ? QByteArray() : wrapRoot(root);
}

template <class T> QByteArray archivedArray(const QList<T> &objects, NQErrorOpt *error = nullptr)
{
    KeyedArchiver archiver(QStringLiteral("NSArray"));
    const QCborValue root = archiver.archiveList(objects);
    setError(error, archiver.error());
    return archiver.error() ? QByteArray() : wrapRoot(root);
}

template <class T> std::optional<T> unarchivedObject(const QByteArray &data, NQErrorOpt *error = nullptr)
{
    setError(error, std::nullopt);
    const std::optional<QCborValue> root = unwrapRoot(data, error);
    if (!root)
        return std::nullopt;
    // Decode through a parent so a nested failure anywhere fails the whole archive.
    const KeyedUnarchiver reader = KeyedUnarchiver::topLevel();
    std::optional<T> object = reader.decodeRecord<T>(*root);
    setError(error, reader.error());
    return reader.error() ? std::nullopt : object;
}

template <class T> std::optional<QList<T>> unarchivedArray(const QByteArray &data, NQErrorOpt *error = nullptr)
{
    setError(error, std::nullopt);
    const std::optional<QCborValue> root = unwrapRoot(data, error);
    if (!root)
        return std::nullopt;
    const KeyedUnarchiver reader = KeyedUnarchiver::topLevel();
    std::optional<QList<T>> list = reader.decodeRecordList<T>(*root);
    setError(error, reader.error());
    return reader.error() ? std::nullopt : list;
}

} // namespace KeyedArchive
