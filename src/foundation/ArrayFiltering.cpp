#include "foundation/ArrayFiltering.h"

#include <QVariantMap>

namespace ArrayFiltering {

QVariantList filterObjectsByKey(const QVariantList &objects, const QString &key)
{
    QVariantList kept;
    // A linear search: QVariant has no hash, and the lists filtered here are short.
    QVariantList seen;
    for (const QVariant &object : objects) {
        const QVariant value = object.toMap().value(key);
        if (seen.contains(value))
            continue;
        seen << value;
        kept << object;
    }
    return kept;
}

} // namespace ArrayFiltering
