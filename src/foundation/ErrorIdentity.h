#pragma once

#include "foundation/NQError.h"

#include <QList>
#include <QVariantMap>

// The application's own error records and the helpers that describe them.
namespace ErrorIdentity {

// Domain of errors the application raises itself.
inline constexpr auto kApplicationErrorDomain = "com.pelorin.vpn";
// Domain of the backend client's errors (a reply without an expected key, ...).
inline constexpr auto kBackendErrorDomain = "com.pelorin.vpn.mac.identity.error";
// Information-dictionary key of errorWithCode(code, message).
inline constexpr auto kMessageKey = "kNQErrorMessage";
// Code of errorForMissingKey.
inline constexpr int kMissingKeyCode = -32;

// An application error with no information dictionary.
NQError errorWithCode(int code);
// The same; a non-null message is kept under "kNQErrorMessage".
NQError errorWithCode(int code, const QString &message);

// A backend error, code -32, described as "Missing key ('<key>')" in the interface language.
NQError errorForMissingKey(const QString &key);
// The same error for callers that also hold underlying errors; they do not change it.
NQError errorForMissingKey(const QString &key, const QList<NQError> &underlyingErrors);

// Description, failure reason and recovery suggestion under the standard keys, each only
// where the error has one (an error always has a description).
QVariantMap localizedDescriptions(const NQError &error);
// Writes the error and its descriptions to the "|Class| ..." log channel.
void logObject(const NQError &error);

} // namespace ErrorIdentity
