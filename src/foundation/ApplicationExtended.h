#pragma once

#include <QString>

// Application-wide helpers.
namespace ApplicationExtended {

// The bundle's name ("PelorinVPN"), or "<ERROR>='Cannot retrieve app name'" when the bundle
// gives none; never empty.
QString appName();

} // namespace ApplicationExtended
