// The catalog stars of a circular region, projected and brightest first.
#pragma once

#include <cstdint>
#include <optional>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCache.h"

namespace vestrel {

/// The faintest magnitude to compare a field with, so that fields of all sizes have about the same
/// number of stars: 15 for a half-diagonal of 14', and 1.5 magnitudes less for every doubling.
/// @param halfDiagonal radians, above 0
double MagnitudeLimitFor(double halfDiagonal);

/// Which stars of the cache are seen in a region. The plane folds those of the far hemisphere onto
/// this one, mirrored: where an image of that part of the sky would match them.
enum class SkySides { Both, This };

/// The stars of a region that are brighter than a limit, for a solve.
///
/// Loads the region, then projects every cached star with `projection`, whose centre and scale
/// (arcseconds per radian) the caller has set. A star belongs to the region when its distance *on
/// the plane* is at most the radius; stars of the far hemisphere near the opposite point are
/// therefore included when the cache holds cells there, unless `sides` leaves them out.
/// @param radius   radians
/// @param magLimit magnitudes; a star of exactly this magnitude is left out
/// @return at most 10000; later ones are dropped silently
PlateStarList RegionStars(CatalogCache& cache, const Projection& projection, SkyPosition centre,
                          double radius, double magLimit, SkySides sides = SkySides::Both);

/// The result of `RegionStars`, without any change of the cache; empty when a cell would have to be
/// read.
std::optional<PlateStarList> RegionStarsInMemory(const CatalogCache& cache,
                                                 const Projection& projection, SkyPosition centre,
                                                 double radius, double magLimit,
                                                 SkySides sides = SkySides::Both);

/// Whether a region of this radius may have cells that `LoadRegion` misses, because it looks at a
/// grid of points only.
bool IsWideRegion(double radius);

/// The stars of a region on this side of the sky, from all cells that it touches. Those of a wide
/// region are taken cell by cell, because the cache may not have room for all of it.
/// @param centre, radius, magLimit as in `RegionStars`; also the projection's centre
PlateStarList WholeRegionStars(CatalogCache& cache, SkyPosition centre, double radius,
                               double magLimit);

/// Leaves out the stars of the far hemisphere.
PlateStarList OnThisSide(PlateStarList stars, SkyPosition centre);

/// The stars of the cells that the last `LoadRegion` touched, within `radius` (radians) of a centre
/// and no fainter than `magLimit`, at most 1000, far hemisphere excluded. Sets the centre of
/// `projection` to it.
PlateStarList FieldStars(CatalogCache& cache, Projection& projection, SkyPosition centre,
                         double radius, double magLimit);

}  // namespace vestrel
