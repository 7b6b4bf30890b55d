#pragma once

#include "backend/BackofficeApiDesktop.h"
#include "ui/LocationLookup.h"

// The screens' location lookup over the backend's geolocation service.
class BackofficeLocationLookup : public LocationLookup {
public:
    void checkMyLocation(Completion completion) override
    {
        BackofficeApiDesktop::checkMyLocation(std::move(completion));
    }
};
