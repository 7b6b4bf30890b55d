#include "foundation/NQDevice.h"

#include "platform/Platform.h"

#include <cerrno>

std::optional<QString> NQDevice::modelIdentifierWithError(NQErrorOpt *error)
{
    std::optional<QString> model = Platform::instance().deviceModel();
    if (error) {
        if (model)
            error->reset();
        else
            *error = NQError(QLatin1String(NQError::kPosixDomain), ENOENT,
                             {{QLatin1String(NQError::kLocalizedDescriptionKey),
                               QStringLiteral("The hardware model cannot be read.")}});
    }
    return model;
}
