#pragma once

#include <QString>
#include <QVariantMap>

#include <optional>

// The application's bundle information: version, build number, name, identifier, copyright,
// fixed when the program is built.
namespace BundleExtended {

inline constexpr auto kShortVersionKey = "CFBundleShortVersionString";
inline constexpr auto kVersionKey = "CFBundleVersion";
inline constexpr auto kNameKey = "CFBundleName";
inline constexpr auto kIdentifierKey = "CFBundleIdentifier";
inline constexpr auto kCopyrightKey = "NSHumanReadableCopyright";

// The bundle information under the keys above.
QVariantMap infoDictionary();
// Replaces the bundle information (tests); an empty optional restores the built one.
void setInfoDictionaryForTesting(std::optional<QVariantMap> info);

// One entry of infoDictionary(); null when it is missing.
QString stringForKey(const char *key);

// "<short version>.<build number>", e.g. "2.1.0.45".
QString appVersionString();

} // namespace BundleExtended
