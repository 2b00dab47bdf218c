// Which fields the stars of a catalog suffice for, in each part of the sky, and where stars are
// missing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vestrel {

/// A field counts as solvable when it has this many catalog stars down to the magnitude that a
/// solve compares. Fields with fewer were solved only by luck (docs/ACCURACY.md).
inline constexpr double StarsToSolveWith = 15;

/// The diagonal (degrees) of the smallest 4 : 3 field that can be solved on average in a part of
/// the sky; infinite when none up to 30° can.
/// @param magnitudes magnitudes of its stars, hundredths, in rising order
/// @param area square degrees
double SmallestField(std::span<const std::int16_t> magnitudes, double area);

/// A cell with far fewer stars than those around it.
struct CatalogHole {
    std::size_t Cell = 0;  ///< index in `AllCells`
    std::uint64_t Stars = 0;
    double Expected = 0;  ///< stars expected from the density of its neighbours
};

/// The cells with less than a tenth of the expected stars, when 50 or more are expected. The
/// expectation is the density that three quarters of the neighbours exceed. No dark cloud of the
/// Milky Way is that dark and that large.
/// @param stars number for each cell of `AllCells`
std::vector<CatalogHole> FindHoles(const std::vector<std::uint64_t>& stars);

}  // namespace vestrel
