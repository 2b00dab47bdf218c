// The triangles of a star list as columns of numbers, for comparing many of them at once.
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libPlateStar.h"

namespace vestrel {

/// The corners of a triangle, 16 bits each: the star opposite the shortest side lowest, then the
/// one opposite the middle side, then the one opposite the longest.
using TriangleCorners = std::uint64_t;

/// The star at a corner, 0 (opposite the shortest side) to 2.
constexpr std::int32_t StarAtCorner(TriangleCorners corners, int corner) {
    return static_cast<std::int32_t>(corners >> (16 * corner) & 0xFFFF);
}

/// Triangles as `BuildTriangles` (libTriangles) makes them, but not sorted.
struct TriangleColumns {
    std::vector<double> Short;  ///< shortest side / longest side
    std::vector<double> Mid;    ///< middle side / longest side
    std::vector<TriangleCorners> Corners;

    std::int32_t Count() const { return static_cast<std::int32_t>(Corners.size()); }
};

/// The bounds of the ratios of triangles that can be told apart.
struct RatioBounds {
    static constexpr double LargestRatio = 0.95;
    static constexpr double LeastSum = 1.3;
    static constexpr double LeastDifference = 0.05;
};

/// The triangles of stars 1..n (at most 65535) that can be told apart reliably, in the order of
/// their stars: the very ones of `BuildTriangles`.
///
/// Four triangles with two stars in common are made at once. Sides are put in order by minima and
/// maxima; which corner faces which follows from where they came from, which is clear as sides of
/// one length never pass. Every triangle is then written behind the ones before, and the place
/// only moves on after one that passed, so that there are no branches to guess.
TriangleColumns BuildTriangleColumns(const PlateStarList& list, std::int32_t n);

}  // namespace vestrel
