#include "foundation/ArrayFiltering.h"

#include <QVariantMap>

#include <algorithm>

namespace {

bool isNumber(const QVariant &v)
{
    switch (v.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Bool:
        return true;
    default:
        return false;
    }
}

// Numbers compare by value whatever their width; otherwise the types must agree, so the text
// "1" is not the number 1 (QVariant alone would convert one into the other).
bool sameValue(const QVariant &a, const QVariant &b)
{
    if (isNumber(a) && isNumber(b))
        return QVariant::compare(a, b) == QPartialOrdering::Equivalent;
    return a.typeId() == b.typeId() && a == b;
}

} // namespace

namespace ArrayFiltering {

QVariantList filterObjectsByKey(const QVariantList &objects, const QString &key)
{
    QVariantList kept;
    // A linear search: QVariant has no hash, and the lists filtered here are short.
    QVariantList seen;
    for (const QVariant &object : objects) {
        const QVariant value = object.toMap().value(key);
        if (std::any_of(seen.cbegin(), seen.cend(), [&](const QVariant &s) { return sameValue(s, value); }))
            continue;
        seen << value;
        kept << object;
    }
    return kept;
}

} // namespace ArrayFiltering
