#include "ui/MapMarker.h"

namespace MapMarkers {

std::optional<MapMarker> markerFor(const QString &continent, const QString &countryIso)
{
    if (continent == QLatin1String("North America"))
        return MapMarker::US;
    if (continent == QLatin1String("South America"))
        return countryIso == QLatin1String("MX") ? MapMarker::Mexico : MapMarker::Brasile;
    if (continent == QLatin1String("Europe"))
        return countryIso == QLatin1String("UA") ? MapMarker::Ukraine : MapMarker::Eu;
    if (continent == QLatin1String("Africa"))
        return MapMarker::Africa;
    if (continent == QLatin1String("Australia"))
        return MapMarker::Australia;
    if (continent == QLatin1String("Asia"))
        return countryIso == QLatin1String("IN") ? MapMarker::India : MapMarker::EastAsia;
    return std::nullopt;
}

QString name(MapMarker marker)
{
    switch (marker) {
    case MapMarker::US:
        return QStringLiteral("mapLocationUS");
    case MapMarker::Mexico:
        return QStringLiteral("mapLocationMexico");
    case MapMarker::Brasile:
        return QStringLiteral("mapLocationBrasile");
    case MapMarker::Eu:
        return QStringLiteral("mapLocationEu");
    case MapMarker::Ukraine:
        return QStringLiteral("mapLocationUkraine");
    case MapMarker::Africa:
        return QStringLiteral("mapLocationAfrica");
    case MapMarker::Australia:
        return QStringLiteral("mapLocationAustralia");
    case MapMarker::India:
        return QStringLiteral("mapLocationIndia");
    case MapMarker::EastAsia:
        return QStringLiteral("mapLocationEastAsia");
    case MapMarker::Korea:
        return QStringLiteral("mapLocationKorea");
    }
    return {};
}

} // namespace MapMarkers
