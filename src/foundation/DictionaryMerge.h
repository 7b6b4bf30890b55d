#pragma once

#include <QVariantMap>

// Deep merge of dictionaries.
namespace DictionaryMerge {

// `base` extended with `extension`: every key of the extension wins, except that where both
// hold a dictionary under the same key the two are merged by this same rule, at any depth.
// Keys only in the base stay.
QVariantMap dictionaryByExtending(const QVariantMap &base, const QVariantMap &extension);
// The same, named for the call on the base dictionary.
QVariantMap dictionaryByExtendingWithDictionary(const QVariantMap &base, const QVariantMap &extension);

} // namespace DictionaryMerge
