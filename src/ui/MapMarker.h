#pragma once

#include <QString>

#include <optional>

// The ten region markers of the connection panel's world map.
enum class MapMarker {
    US,
    Mexico,
    Brasile,
    Eu,
    Ukraine,
    Africa,
    Australia,
    India,
    EastAsia,
    Korea,
};

namespace MapMarkers {

inline constexpr int kCount = 10;

// The marker lit for a cluster. The continent is compared exactly (case-sensitive); a
// continent outside the known five lights nothing. No cluster lights Korea: it has a marker
// on the map but no rule of its own.
std::optional<MapMarker> markerFor(const QString &continent, const QString &countryIso);

// Outlet name of a marker ("mapLocationUS", ...), used for logs and view lookups.
QString name(MapMarker marker);

} // namespace MapMarkers
