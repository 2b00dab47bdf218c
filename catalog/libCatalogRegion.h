// The catalog stars of a circular region, projected and brightest first.
#pragma once

#include <cstdint>
#include <optional>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCache.h"

namespace vestrel {

/// The faintest magnitude to compare a field with, so that fields of all sizes have about as many
/// stars: 15 for a half-diagonal (radians) of 14', and 1.5 magnitudes less for every doubling.
double MagnitudeLimitFor(double halfDiagonal);

/// The stars of a region that are brighter than a limit, for a solve.
///
/// Loads the region, then projects every cached star with `projection`, which the caller has
/// centred with a scale in arcseconds per radian. A star belongs to the region when its distance
/// *on the plane* is at most the radius; stars on the far hemisphere are not told apart.
/// @param radius   radians
/// @param magLimit magnitudes; a star of just this magnitude is left out
/// @return at most 10000; later ones are dropped silently
PlateStarList RegionStars(CatalogCache& cache, const Projection& projection, SkyPosition centre,
                          double radius, double magLimit);

/// What `RegionStars` would give, without touching the cache; nothing when it would have to read.
std::optional<PlateStarList> RegionStarsInMemory(const CatalogCache& cache,
                                                 const Projection& projection, SkyPosition centre,
                                                 double radius, double magLimit);

/// The stars of the cells that the last `LoadRegion` touched, within `radius` (radians) of a
/// centre and no fainter than `magLimit`, at most 1000, far hemisphere excluded. Centres
/// `projection` there.
PlateStarList FieldStars(CatalogCache& cache, Projection& projection, SkyPosition centre,
                         double radius, double magLimit);

}  // namespace vestrel
