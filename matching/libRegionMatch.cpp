#include "matching/libRegionMatch.h"

#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"

namespace vestrel {

RegionSettings RegionSettingsFor(double width, double height, double maxError,
                                 const AlignSettings& align) {
    const double radius = std::sqrt(width * width + height * height) / 2;
    return {radius, MagnitudeLimitFor(radius), maxError, align};
}

RegionMatch RegionMatcher::Read(SkyPosition centre) {
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    return {centre,
            RegionStars(catalog_, plane, centre, settings_.Radius, settings_.MagnitudeLimit),
            {}};
}

void RegionMatcher::Match(RegionMatch& region, const Progress& progress) {
    region.Found = AlignImages(region.CatalogStars, plateStars_, settings_.MaxError,
                               settings_.Align, plateTriangles_, progress);
}

}  // namespace vestrel
