// A small synthetic sky: a catalog, a frame of it, and its quad tables.
#pragma once

#include <filesystem>
#include <vector>

#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCells.h"

namespace vestrel {

inline constexpr int side = 300;              // of the frame, pixels
inline constexpr double scale = 2;            // arcseconds a pixel
inline const SkyPosition centre{0.02, 0.01};  // radians

/// Writes the cells of a catalog: each star, in the order given, into the cell that it is stored
/// in.
void WriteCatalog(const std::filesystem::path& catalog, const std::vector<CatalogStar>& stars);

/// Writes a field of stars as a catalog and as a frame. Row 0 of the frame is in the south.
/// @return the stars, brightest first
std::vector<CatalogStar> MakeSky(const std::filesystem::path& catalog,
                                 const std::filesystem::path& frame);

/// Adds quad tables for fields of a range of diagonals (radians) to a catalog. They hold the first
/// `most` stars, each combined with three of the six brightest.
void WriteQuadTables(const std::filesystem::path& catalog, std::vector<CatalogStar> stars,
                     std::size_t most, double smallest = 0, double largest = 10);

}  // namespace vestrel
