#pragma once

#include <QString>
#include <QVariantList>

// Filters over arrays of dictionaries.
namespace ArrayFiltering {

// The elements, in order, whose value under `key` no earlier element had: the first element
// of each distinct value stays. Values compare as QVariant (1 and 1.0 are the same value); an
// element without the key, or one that is not a dictionary, counts as the value "absent".
// A text never equals a number ("1" and 1 are different values).
QVariantList filterObjectsByKey(const QVariantList &objects, const QString &key);

} // namespace ArrayFiltering
