// Configuration property lists (XML or binary) read into Qt values, then merged the way the
// two resource files are merged.
#include "FuzzInput.h"
#include "foundation/DictionaryMerge.h"
#include "foundation/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzInput::silenceLogs();
    const std::optional<QVariantMap> dictionary = PropertyList::dictionaryFromData(FuzzInput::bytes(data, size));
    if (!dictionary)
        return 0;
    // Extending a dictionary with itself changes nothing, at any depth.
    const QVariantMap merged = DictionaryMerge::dictionaryByExtendingWithDictionary(*dictionary, *dictionary);
    FuzzInput::check(merged.keys() == dictionary->keys(), "self-merge changed the keys");
    const QVariantMap ontoEmpty = DictionaryMerge::dictionaryByExtendingWithDictionary({}, *dictionary);
    FuzzInput::check(ontoEmpty.size() == dictionary->size(), "merge onto nothing lost keys");
    return 0;
}
