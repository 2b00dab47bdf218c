// Four-star patterns: their shape, and the tables of catalog quads that images are looked up in.
//
// The shape of a quad is the six distances between its stars, sorted and divided by the longest:
// neither shift, rotation, scale nor mirroring change it, nor the order of the stars.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCells.h"

namespace vestrel {

/// A quad: a record of the quad table, or the shape of four image stars.
struct Quad {
    std::int32_t Star1 = 0;  ///< places in the quad star table; 0 for image stars
    std::int32_t Star2 = 0;
    std::int32_t Star3 = 0;
    std::int32_t Star4 = 0;
    float QuadKey = 0;  ///< the sum of the five ratios, 0..5
    float Ratio1 = 0;   ///< second longest distance / longest distance
    float Ratio2 = 0;
    float Ratio3 = 0;
    float Ratio4 = 0;
    float Ratio5 = 0;  ///< shortest distance / longest distance
};
static_assert(sizeof(Quad) == 40, "a record of the quad table");

/// The shape of a quad from its six distances, in any order and unit. All ratios are NaN when the
/// longest distance is 0.
Quad QuadFromDistances(double d12, double d13, double d14, double d23, double d24, double d34);

/// The shape of four stars on a plane.
Quad QuadDescriptor(const PlateStar& s1, const PlateStar& s2, const PlateStar& s3,
                    const PlateStar& s4);

/// How unlike two shapes are: the distance of their five ratios.
double QuadDistance(const Quad& q1, const Quad& q2);

/// The tables that a search looks into. All lists are 1-based.
struct QuadTables {
    std::vector<Quad> Quads;  ///< in rising order of `QuadKey`
    std::int32_t QuadCount = 0;
    std::vector<CatalogStar> Stars;
    std::int32_t StarCount = 0;

    // What `IndexTables` makes, to search faster.
    std::vector<std::array<float, 2>> RatioPairs;  ///< `Ratio2` and `Ratio5` of `Quads`
    /// Star places by declination: those of zone z, in rising order, stand at
    /// ZoneStarts[z] .. ZoneStarts[z + 1] − 1, and so do their directions (unit vectors).
    std::vector<std::int32_t> ZoneStarts;
    std::vector<std::int32_t> ZoneStars;
    std::vector<std::array<float, 3>> ZoneDirections;
};

/// To be called when the quads and stars are in place, before a search.
void IndexTables(QuadTables& tables);

/// The place (1..QuadCount) from which to search for keys of `target` and more: bisection, which
/// may end one place early. The table must not be empty. Calls `yield` at every step.
std::int32_t FindFirstQuad(const QuadTables& tables, double target,
                           const std::function<void()>& yield = {});

/// The first place from `from` to QuadCount whose key is not below `limit`, else QuadCount.
std::int32_t FindKeyLimit(const QuadTables& tables, std::int32_t from, double limit);

/// The stars of the quad star table within `radius` (radians) of a position and no fainter than
/// `magLimit`, at most 1000 (the first in the table), brightest first. Centres `projection` there.
/// @param list 1-based: plane position (arcseconds), magnitude as flux, sky position (radians)
void NearbyCatalogStars(const QuadTables& tables, Projection& projection, double ra, double dec,
                        double radius, double magLimit, PlateStarList& list, std::int32_t& count);

}  // namespace vestrel
