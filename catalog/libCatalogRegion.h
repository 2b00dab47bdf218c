// The catalog stars of a circular region, projected and brightest first.
#pragma once

#include <cstdint>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCache.h"

namespace vestrel {

/// The stars of a region that are brighter than a limit, for a solve.
///
/// Loads the region, then projects every cached star with `projection`, which the caller has
/// centred with a scale in arcseconds per radian. A star belongs to the region when its distance
/// *on the plane* is at most the radius; stars on the far hemisphere are not told apart.
/// @param radius   radians
/// @param magLimit magnitudes; a star of just this magnitude is left out
/// @param stars    1-based; at most 10000, later ones are dropped silently
void RegionStars(CatalogCache& cache, const Projection& projection, double ra0, double dec0,
                 double radius, double magLimit, PlateStarList& stars, std::int32_t& count);

/// The stars of the cells that the last `LoadRegion` touched, within `radius` (radians) of a
/// centre and no fainter than `magLimit`, at most 1000, far hemisphere excluded. Centres
/// `projection` on (ra0, dec0).
void FieldStars(const CatalogCache& cache, Projection& projection, double ra0, double dec0,
                double radius, double magLimit, PlateStarList& stars, std::int32_t& count);

}  // namespace vestrel
