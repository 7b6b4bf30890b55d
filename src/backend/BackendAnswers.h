#pragma once

#include "backend/BackendRequest.h"
#include "backend/NQIdentityServer.h"

#include <QString>

// What the backend client makes of each answer, apart from the request that fetched it:
// a BackendRequest::Result in (see BackendRequest::resultForBody), the values a completion
// hands on out. Pure apart from the request's own log lines; no network, any thread.
namespace BackendAnswers {

// Label settings: the three links; a value that is not a string stays null. An answer that
// is no JSON object fails.
struct LabelSettings {
    QString support;
    QString linkAfterInstall;
    QString linkAfterUninstall;
    NQErrorOpt error;
};
LabelSettings labelSettings(const BackendRequest::Result &result);

// Extension link: "success" and "url"; a missing url is an error of its own.
struct ExtensionLink {
    bool success = false;
    QString url;
    NQErrorOpt error;
};
ExtensionLink extensionLink(const BackendRequest::Result &result);

// The VPN account. An answer that is no JSON object fails with -21 "Response unknown"; each
// missing (or null) key is logged with `failureLine` and leaves its value empty.
struct RegisterVpn {
    NQIdentityServer::RegisterVpnResponse response;
    NQErrorOpt error;
};
RegisterVpn registerVpn(const BackendRequest::Result &result, const QString &failureLine);

// The install event's acknowledgement: "sent" as a boolean or a number (non-zero is sent);
// anything else, or a failed request, is not sent.
bool installEventSent(const BackendRequest::Result &result);

// The caller's public address. `error` is the text handed to the caller, null on success.
struct Location {
    QString ip;
    QString country;
    QString countryName;
    QString error;
};
Location location(const BackendRequest::Result &result);

} // namespace BackendAnswers
