#pragma once

#include "foundation/NQError.h"

class QNetworkReply;

// Transport failures as the URL session of the original platform names them, so that every
// log line and error text reads the same on each platform. Domain "NSURLErrorDomain"; the
// information dictionary holds the description and the failing URL.
//
//   time-out (our own timer, or Qt's)                -1001 "The request timed out."
//   connection refused, proxy refused                -1004 "Could not connect to the server."
//   host or proxy not found                          -1003 "A server with the specified hostname could not be found."
//   remote closed, proxy closed, no reply            -1005 "The network connection was lost."
//   network session failed, temporary network fail   -1009 "The Internet connection appears to be offline."
//   TLS handshake failed                             -1200 "An SSL error has occurred and a secure connection to the
//   server cannot be made." unknown scheme                                   -1002 "unsupported URL" malformed HTTP
//   (protocol failure)                -1017 "cannot parse response" cancelled -999  "cancelled" anything else below
//   HTTP                         -1    "An unknown error occurred."
//
// A reply that carries an HTTP status is never a transport error, whatever the status.
namespace URLSessionError {

inline constexpr auto kDomain = "NSURLErrorDomain";
inline constexpr auto kFailingURLStringKey = "NSErrorFailingURLStringKey";
inline constexpr int kTimedOut = -1001;
inline constexpr int kCannotConnectToHost = -1004;
inline constexpr int kNetworkConnectionLost = -1005;

// The transport error of a finished reply, or nothing when the server answered.
// `timedOut` says that our own time-out aborted it.
NQErrorOpt fromReply(const QNetworkReply &reply, bool timedOut);
// An error of this domain for `code` (one of the rows above) and the failing URL.
NQError make(int code, const QString &url);

} // namespace URLSessionError
