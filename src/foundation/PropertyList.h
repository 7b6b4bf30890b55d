#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantMap>

#include <optional>

// Property lists (XML or binary) read into Qt values: dictionaries become QVariantMap, arrays
// QVariantList, strings QString, integers qint64, reals double,
// booleans bool, data QByteArray and dates QDateTime in UTC (whole seconds in the binary
// format). A string holding a NUL byte ends there.
namespace PropertyList {

// Configuration files are a few kilobytes; anything past this is refused unread.
inline constexpr qint64 kMaxFileBytes = 4 * 1024 * 1024;

// The top-level dictionary of `bytes`; empty when they are no property list or the top level
// is not a dictionary.
std::optional<QVariantMap> dictionaryFromData(const QByteArray &bytes);
// The same for a file; empty when it is missing, unreadable or too large.
std::optional<QVariantMap> dictionaryFromFile(const QString &path);

} // namespace PropertyList
