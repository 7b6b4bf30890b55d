#pragma once

#include <QString>

#include <functional>

// Where the backend sees this machine's public address: GET <host>/api1/helper/iptocountry.
// One lookup at a time: a call while another is under way completes at once with
// "Already called" and sends nothing.
class BackofficeApiDesktop {
public:
    // Address, country code, country name (null where absent) and the error text (null on
    // success). Always on the main thread.
    using LocationCompletion = std::function<void(const QString &ip, const QString &country, const QString &countryName,
                                                  const QString &error)>;

    // Errors: the transport error's description; "Deserialize response failed." for a body
    // that is not JSON; "Parse response failed." when "ip" or "country" is missing (both code
    // -1 in "com.pelorin.vpn.mac.identity.error").
    static void checkMyLocation(LocationCompletion completion);

    // Whether a lookup is under way (main thread).
    static bool isRequestInFlight();
};
