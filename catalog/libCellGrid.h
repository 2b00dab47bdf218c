// Numbers the cells of the catalog grid, and converts stars to stored records.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "catalog/libCatalogCells.h"

namespace vestrel {

/// A star from a source catalog, J2000.
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

/// Surveys mark unmeasured magnitudes with values outside these bounds (99.99, −99).
inline constexpr double BrightestMagnitude = -30;
inline constexpr double FaintestMagnitude = 40;

/// All cells of the grid, north before south, outward from the equator.
const std::vector<CellPosition>& AllCells();

/// The index of a grid cell in `AllCells`.
std::size_t CellNumber(const CellPosition& cell);

/// Whether a cell may hold a star within `radius` (radians) of a position.
bool CellTouches(const CellPosition& cell, SkyPosition centre, double radius);

/// The part of the whole sphere that a cell covers, 0..1.
double CellAreaFraction(const CellPosition& cell);

/// Whether a stored position lies in the ranges of the catalog: Ra in 0..2π (2π excluded), Dec in
/// −π/2..π/2. False for NaN.
bool IsStoredPosition(float ra, float dec);

/// The record of a star: 32-bit position, magnitude rounded to hundredths (halves to even). Nothing
/// when the position is not valid or the magnitude lies outside the bounds above.
std::optional<CatalogStar> StoredStar(const SkyStar& star);

/// The cell of a stored star, by its stored, rounded position, as all readers and checks use it.
inline CellPosition CellOfStored(const CatalogStar& star) {
    return CellOf(PositionOf(star));
}

}  // namespace vestrel
