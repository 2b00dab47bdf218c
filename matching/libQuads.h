// Quads: patterns of four stars, whose shapes are looked up to recognise an image.
//
// The shape of a quad is the six distances between its stars, sorted and divided by the longest:
// shift, rotation, scale, mirroring and the order of the stars do not change it.
#pragma once

#include <array>
#include <cstdint>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCells.h"

namespace vestrel {

/// The shape of a quad.
struct Quad {
    float QuadKey = 0;  ///< the sum of the five ratios, 0..5
    float Ratio1 = 0;   ///< second longest distance / longest distance
    float Ratio2 = 0;
    float Ratio3 = 0;
    float Ratio4 = 0;
    float Ratio5 = 0;  ///< shortest distance / longest distance
};

/// A quad of a table.
struct CatalogQuad {
    std::array<CatalogStar, 4> Stars;  ///< brightest first
    Quad Shape;
    std::int32_t Place = 0;         ///< number in the table, from 1
    std::array<Direction, 4> At{};  ///< where the stars are
};

/// The shape of a quad from its six distances, in any order and unit. All ratios are NaN when the
/// longest distance is 0.
Quad QuadFromDistances(double d12, double d13, double d14, double d23, double d24, double d34);

/// The shape of four stars on a plane.
Quad QuadDescriptor(const PlateStar& s1, const PlateStar& s2, const PlateStar& s3,
                    const PlateStar& s4);

/// The shape of four stars on the sky, from the chords between them.
Quad QuadOfDirections(const std::array<Direction, 4>& stars);
Quad QuadOfStars(const std::array<CatalogStar, 4>& stars);

/// How different two shapes are: the Euclidean distance of their five ratios.
double QuadDistance(const Quad& q1, const Quad& q2);

/// The order of all catalog star lists: brightest first; by position when the magnitudes are equal.
bool ComesBefore(const CatalogStar& a, const CatalogStar& b);

}  // namespace vestrel
