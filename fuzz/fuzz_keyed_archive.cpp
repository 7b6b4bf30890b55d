// Keyed archives as the settings store holds them: the whitelist records of the extension,
// the favourite clusters, and a probe record that reads every kind of value.
#include "FuzzInput.h"
#include "extension/WhitelistDomain.h"
#include "foundation/KeyedArchive.h"
#include "vpn/NQVPNCountry.h"

namespace {

// Reads every decoder of the format, nested records included, the way a record class would.
struct Probe {
    static QString archiveClassName() { return QStringLiteral("Probe"); }
    void encodeWithCoder(KeyedArchiver &) const {}
    static std::optional<Probe> initWithCoder(const KeyedUnarchiver &coder)
    {
        coder.containsValueForKey(QStringLiteral("b"));
        coder.decodeBoolForKey(QStringLiteral("b"));
        coder.decodeInt32ForKey(QStringLiteral("i"));
        coder.decodeInt64ForKey(QStringLiteral("i"));
        coder.decodeDoubleForKey(QStringLiteral("d"));
        coder.decodeStringForKey(QStringLiteral("s"));
        coder.decodeDataForKey(QStringLiteral("data"));
        coder.decodeObjectForKey(QStringLiteral("o"));
        coder.decodeObjectOfClass<WhitelistDomain>(QStringLiteral("w"));
        coder.decodeArrayOfClass<NQVPNCountry>(QStringLiteral("c"));
        return Probe{};
    }
};

// A decode succeeds exactly when it reports no error.
template <class T> void checkOutcome(const std::optional<T> &value, const NQErrorOpt &error)
{
    FuzzInput::check(value.has_value() != error.has_value(), "decoded value and error disagree");
    if (error)
        FuzzInput::check(error->domain() == QLatin1String(KeyedArchive::kCocoaErrorDomain), "error domain");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzInput::silenceLogs();
    const QByteArray bytes = FuzzInput::bytes(data, size);
    NQErrorOpt error;

    const auto domain = KeyedArchive::unarchivedObject<WhitelistDomain>(bytes, &error);
    checkOutcome(domain, error);
    if (domain) {
        // Whatever decodes is stored again unchanged.
        NQErrorOpt again;
        const auto copy = KeyedArchive::unarchivedObject<WhitelistDomain>(KeyedArchive::archivedData(*domain), &again);
        FuzzInput::check(copy && *copy == *domain, "whitelist record did not survive a round trip");
    }

    const auto countries = KeyedArchive::unarchivedArray<NQVPNCountry>(bytes, &error);
    checkOutcome(countries, error);
    if (countries) {
        // The identifiers narrow on the first read only; after that the archive is stable.
        const QByteArray first = KeyedArchive::archivedArray(*countries);
        const auto reread = KeyedArchive::unarchivedArray<NQVPNCountry>(first);
        FuzzInput::check(reread && KeyedArchive::archivedArray(*reread) == first, "cluster list is not stable");
    }

    checkOutcome(KeyedArchive::unarchivedObject<Probe>(bytes, &error), error);
    return 0;
}
