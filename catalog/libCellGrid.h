// The cells of the catalog grid by number, and how a star is stored in one.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "catalog/libCatalogCells.h"

namespace vestrel {

/// A star as a source gives it, J2000.
struct SkyStar {
    double Ra = 0;   ///< radians, 0..2π
    double Dec = 0;  ///< radians, −π/2..π/2
    double Mag = 0;  ///< magnitudes
};
inline SkyPosition PositionOf(const SkyStar& star) {
    return {star.Ra, star.Dec};
}

/// Takes the stars of a source one by one.
using StarSink = std::function<void(const SkyStar&)>;

/// Magnitudes outside these bounds are the "not measured" of some survey (99.99, −99), not stars.
inline constexpr double BrightestMagnitude = -30;
inline constexpr double FaintestMagnitude = 40;

/// All cells of the grid, north before south, outward from the equator.
const std::vector<CellPosition>& AllCells();

/// The place of a cell of the grid in `AllCells`.
std::size_t CellNumber(const CellPosition& cell);

/// The part of the whole sphere that a cell covers, 0..1.
double CellAreaFraction(const CellPosition& cell);

/// Whether a stored position lies in the ranges of the catalog: Ra in 0..2π (open above), Dec in
/// −π/2..π/2. False for what is not a number.
bool IsStoredPosition(float ra, float dec);

/// The record of a star: 32-bit position, magnitude rounded to hundredths (halves to even). Nothing
/// when the position is no position or the magnitude lies outside the bounds above.
std::optional<CatalogStar> StoredStar(const SkyStar& star);

/// The cell of a stored star. It goes by the stored, rounded position: so does whoever looks the
/// star up or checks the file.
inline CellPosition CellOfStored(const CatalogStar& star) {
    return CellOf(PositionOf(star));
}

}  // namespace vestrel
