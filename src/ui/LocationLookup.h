#pragma once

#include <QString>

#include <functional>

// The user's real address and country, from the backend's geolocation service.
class LocationLookup {
public:
    // The error text the service gives while another lookup is still under way.
    static constexpr auto kAlreadyCalled = "Already called";

    // errorText is null on success; ip and countryCode are null on failure.
    using Completion = std::function<void(const QString &ip, const QString &countryCode, const QString &countryName,
                                          const QString &errorText)>;

    virtual ~LocationLookup() = default;
    // Completes exactly once, on the main thread.
    virtual void checkMyLocation(Completion completion) = 0;
};
