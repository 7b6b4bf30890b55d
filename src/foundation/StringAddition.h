#pragma once

#include <QRegularExpressionMatch>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// Operations on strings used across the application. Each is a pure function of its
// arguments except randomDeviceID. A null QString stands for "no result".
namespace StringAddition {

// Lower-case hexadecimal digests of the UTF-8 bytes (40 and 64 characters).
QString sha1(const QString &text);
QString sha256(const QString &text);
// Standard Base64 of the 20-byte SHA-1 digest of the UTF-8 bytes (28 characters).
QString sha1base64(const QString &text);

// The UTF-8 bytes XORed with a fixed 34-byte key, read back as UTF-8; null when the result
// is not valid UTF-8. Applying it twice restores the text when the middle step was valid.
// (The trailing underscore only because `xor` is a C++ keyword.)
QString xor_(const QString &text);

// Hides all but the last characters of a secret behind asterisks (see StringAddition.cpp).
QString masked(const QString &text);

// The text between the first `start` and the next `end` after it; null when either is missing.
QString stringBetweenString(const QString &text, const QString &start, const QString &end);
// Same as stringBetweenString; both names have callers.
QString stringBetweenString2(const QString &text, const QString &start, const QString &end);

// Whether the whole text looks like an e-mail address (a deliberately lax check).
bool stringCorrectEmailFormat(const QString &text);
// At least 8 characters with a lower-case letter, an upper-case letter, a digit and one of
// "!@#$%^&*()-+".
bool isPasswordStrong(const QString &text);

// The first match of `pattern` anywhere in the text; empty for no match or a bad pattern.
std::optional<QRegularExpressionMatch> firstMatchedResultWithRegex(const QString &text, const QString &pattern);
// Whole match, then each capture group, of the first match; empty when there is none.
QStringList matchWithRegex(const QString &text, const QString &pattern);
// Range `index` of the first match (0 = whole match). An index past the pattern's groups is a
// caller error and yields null, as do no match and a bad pattern.
QString matchWithRegex(const QString &text, const QString &pattern, int index);
// Capture group 1 of the first match.
QString firstMatchedGroupWithRegex(const QString &text, const QString &pattern);

// 32 characters drawn uniformly from 0-9A-Z, then "MAC2": the device identifier.
QString randomDeviceID();

// "H:MM:SS" with the hours not reduced (90061 -> "25:01:01").
QString secondsToMMHHSS(quint64 seconds);

// "<n> <label> ..." of days, hours, minutes and seconds; empty for 0. `label` maps a
// translation key to its text. The hour keys are deliberately used the other way round from
// the day keys: one hour reads "ManageUpdates_UpdateGui_hours", several "..._hour".
QString durationStringFromSeconds(qint64 seconds, const std::function<QString(const QString &)> &label);
// The same with the texts of the current interface language (LocalString::forKey).
QString durationStringFromSeconds(qint64 seconds);

} // namespace StringAddition
