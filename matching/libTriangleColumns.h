// The triangles of a star list as columns of numbers, so that many can be compared at once.
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

/// Triangles as `BuildTriangles` (libTriangles) makes them, but not sorted. The columns may be
/// longer than their number: memory that is used again for the next list.
struct TriangleColumns {
    std::vector<double> Short;  ///< shortest side / longest side
    std::vector<double> Mid;    ///< middle side / longest side
    std::vector<TriangleCorners> Corners;
    std::int32_t Count = 0;
};

/// The bounds of the ratios of triangles that can be told apart.
struct RatioBounds {
    static constexpr double LargestRatio = 0.95;
    static constexpr double LeastSum = 1.3;
    static constexpr double LeastDifference = 0.05;
};

/// Makes the triangles of stars 1..n (at most 65535) that can be told apart reliably, in the order
/// of their stars: the same triangles as those of `BuildTriangles`.
///
/// Four triangles with two stars in common are made at once. Minima and maxima sort the sides. The
/// corners follow from which side is which; this is unambiguous because triangles with equal sides
/// never pass. Every triangle is written at the end of the columns, and the end only advances when
/// the triangle passes, so that there are no unpredictable branches.
void BuildTriangleColumns(const PlateStarList& list, std::int32_t n, TriangleColumns& triangles);

}  // namespace vestrel
