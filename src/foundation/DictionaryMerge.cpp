#include "foundation/DictionaryMerge.h"

namespace {

bool isDictionary(const QVariant &value)
{
    return value.typeId() == QMetaType::QVariantMap;
}

} // namespace

namespace DictionaryMerge {

QVariantMap dictionaryByExtending(const QVariantMap &base, const QVariantMap &extension)
{
    QVariantMap result = base;
    for (auto it = extension.cbegin(); it != extension.cend(); ++it) {
        const auto existing = result.constFind(it.key());
        if (isDictionary(it.value()) && existing != result.cend() && isDictionary(*existing))
            result.insert(it.key(), dictionaryByExtending(existing->toMap(), it.value().toMap()));
        else
            result.insert(it.key(), it.value());
    }
    return result;
}

QVariantMap dictionaryByExtendingWithDictionary(const QVariantMap &base, const QVariantMap &extension)
{
    return dictionaryByExtending(base, extension);
}

} // namespace DictionaryMerge
