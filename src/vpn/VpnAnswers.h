#pragma once

#include "backend/BackendRequest.h"
#include "vpn/NQVPNCountry.h"

#include <QList>
#include <QString>

// What the VPN engine makes of the server-list and profile answers, apart from the requests
// that fetched them: a BackendRequest::Result in, the completion's values out. Pure; any
// thread.
namespace VpnAnswers {

// The server list: one cluster per element of a JSON array. A transport error is passed on;
// any other answer than an array fails with the engine's deserialisation error.
struct Countries {
    QList<NQVPNCountry> countries;
    NQErrorOpt error;
};
Countries countries(const BackendRequest::Result &result);

// A cluster's profile: "ovpn" and "serverAddress" as text; a missing (or null) "ovpn",
// "serverAddress" or "serverPort" gives the missing-key error of the last one missing, with
// the values that are present.
struct CountryVPNConfig {
    QString ovpn;
    QString serverAddress;
    NQErrorOpt error;
};
CountryVPNConfig countryVPNConfig(const BackendRequest::Result &result);

} // namespace VpnAnswers
