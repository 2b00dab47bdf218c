// What the stars of a catalog are enough for, part by part of the sky, and where some are lacking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vestrel {

/// A field counts as one that can be solved when it has so many stars of the catalog down to the
/// magnitude that a solve compares: what was solved in docs/ACCURACY.md with fewer is luck.
inline constexpr double StarsToSolveWith = 15;

/// The diagonal (degrees) of the smallest field of 4 : 3 that can be solved on the average in a
/// part of the sky; infinite when none up to 30° can be.
/// @param magnitudes of its stars, hundredths, in rising order
/// @param area square degrees
double SmallestField(std::span<const std::int16_t> magnitudes, double area);

/// A cell that is far emptier than those around it.
struct CatalogHole {
    std::size_t Cell = 0;  ///< number in `AllCells`
    std::uint64_t Stars = 0;
    double Expected = 0;  ///< stars that it would have with the density of its neighbours
};

/// The cells with less than a tenth of the stars that three quarters of their neighbours make one
/// expect, where that is 50 or more: no cloud of the Milky Way is that dark and that large.
/// @param stars of each cell of `AllCells`
std::vector<CatalogHole> FindHoles(const std::vector<std::uint64_t>& stars);

}  // namespace vestrel
