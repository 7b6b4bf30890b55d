#pragma once

#include "foundation/NQError.h"

#include <QString>

#include <optional>

// Facts about the machine.
class NQDevice {
public:
    // The hardware model text; empty with `error` set (when given) where it cannot be read.
    static std::optional<QString> modelIdentifierWithError(NQErrorOpt *error = nullptr);
};
