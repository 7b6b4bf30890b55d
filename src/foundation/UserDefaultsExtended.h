#pragma once

#include "foundation/KeyedArchive.h"
#include "foundation/NQError.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariant>

#include <optional>

// Archived objects and arrays in the user defaults store. `Defaults` is any store with
// value(key) -> QVariant and setValue(key, QVariant) (AppStorageManager).
namespace UserDefaultsExtended {

// "The data couldn’t be read..." for a stored value that is not archive data.
NQError notDataError(const QString &key);

// Archives `object` and stores the data under `key`. On an archiving failure *error is set,
// nothing is stored and false is returned.
template <class Defaults, class T>
bool setObject(Defaults &defaults, const T &object, const QString &key, NQErrorOpt *error = nullptr)
{
    NQErrorOpt archiveError;
    const QByteArray data = KeyedArchive::archivedData(object, &archiveError);
    KeyedArchive::setError(error, archiveError);
    if (archiveError)
        return false;
    defaults.setValue(key, data);
    return true;
}

// The object of class T under `key`; nullopt where the key is missing (no error) or the data
// does not unarchive as a T (*error set).
template <class T, class Defaults>
std::optional<T> objectForKey(const Defaults &defaults, const QString &key, NQErrorOpt *error = nullptr)
{
    KeyedArchive::setError(error, std::nullopt);
    const QVariant stored = defaults.value(key);
    if (!stored.isValid())
        return std::nullopt;
    if (stored.typeId() != QMetaType::QByteArray) {
        KeyedArchive::setError(error, notDataError(key));
        return std::nullopt;
    }
    return KeyedArchive::unarchivedObject<T>(stored.toByteArray(), error);
}

template <class Defaults, class T>
bool setArray(Defaults &defaults, const QList<T> &array, const QString &key, NQErrorOpt *error = nullptr)
{
    NQErrorOpt archiveError;
    const QByteArray data = KeyedArchive::archivedArray(array, &archiveError);
    KeyedArchive::setError(error, archiveError);
    if (archiveError)
        return false;
    defaults.setValue(key, data);
    return true;
}

template <class T, class Defaults>
std::optional<QList<T>> arrayForKey(const Defaults &defaults, const QString &key, NQErrorOpt *error = nullptr)
{
    KeyedArchive::setError(error, std::nullopt);
    const QVariant stored = defaults.value(key);
    if (!stored.isValid())
        return std::nullopt;
    if (stored.typeId() != QMetaType::QByteArray) {
        KeyedArchive::setError(error, notDataError(key));
        return std::nullopt;
    }
    return KeyedArchive::unarchivedArray<T>(stored.toByteArray(), error);
}

} // namespace UserDefaultsExtended
