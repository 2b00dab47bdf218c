// The star catalog on disk: many small cell files on a fixed grid of declination and right
// ascension, each a bare sequence of 10-byte records.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "astro/libSphericalMath.h"

namespace vestrel {

/// One catalog entry, J2000.
struct CatalogStar {
    float Ra = 0;          ///< radians
    float Dec = 0;         ///< radians
    std::int16_t Mag = 0;  ///< hundredths of a magnitude
};
inline SkyPosition PositionOf(const CatalogStar& star) {
    return {static_cast<double>(star.Ra), static_cast<double>(star.Dec)};
}

/// A record on disk: Ra, Dec, Mag, little-endian.
inline constexpr std::size_t CatalogRecordBytes = 10;

/// Zones of 2.5° per hemisphere, numbered from the equator.
inline constexpr int ZonesPerHemisphere = 36;

/// Where a position falls on the cell grid.
struct CellPosition {
    bool South = false;
    int Zone = 0;            ///< 0..35
    std::int64_t Slice = 0;  ///< from 0; beyond the last one only for absurd right ascensions

    friend bool operator==(const CellPosition&, const CellPosition&) = default;
};

/// The cell that holds a position.
CellPosition CellOf(SkyPosition position);

/// The name of a cell: hemisphere, zone, "R", slice, as in "N05R12".
std::string CellName(const CellPosition& cell);

/// How many slices of right ascension a zone (0..35) has, and how wide they are (degrees).
int SlicesInZone(int zone);
double SliceWidth(int zone);

/// Whether a text names a cell of the grid.
bool IsCellName(std::string_view name);

std::array<unsigned char, CatalogRecordBytes> EncodeCatalogStar(const CatalogStar& star);
/// Any record gives a star, even one with an impossible position.
CatalogStar DecodeCatalogStar(std::span<const unsigned char, CatalogRecordBytes> record);

/// The most stars that a cell may have. A cell has a few square degrees, so no survey reaches this
/// number, which is also the limit of the cache for all cells together.
inline constexpr std::size_t MostStarsInCell = 5'000'000;

/// The file with the record of a catalog's build. A build writes it after all cells, and sorts
/// cells by brightness.
inline constexpr const char* ManifestName = "catalog.json";

/// A cell file of a catalog that Vestrel built, long enough to be worth reading in parts.
struct DeepCellFile {
    std::uintmax_t Length = 0;
    std::filesystem::file_time_type Written;

    friend bool operator==(const DeepCellFile&, const DeepCellFile&) = default;
};

/// Whether a cell file may be read in parts, its brightest stars first. It must have at least 8192
/// stars, be no newer than the manifest beside it, and have its stars in order at the places that
/// are checked.
bool IsDeepCell(const std::filesystem::path& file, DeepCellFile& found);

/// Appends up to `count` stars of such a file to a list, from star number `first` (0-based) on.
/// False when the file has changed or cannot be read.
bool ReadDeepCell(const std::filesystem::path& file, const DeepCellFile& found, std::size_t first,
                  std::size_t count, std::vector<CatalogStar>& stars);

/// Reads a cell file into a 0-based list: file length / 10 records, a longer tail ignored. A file
/// that is missing, cannot be read or is longer than a cell may be gives an empty list and false.
bool ReadCellFile(const std::filesystem::path& file, std::vector<CatalogStar>& stars);

}  // namespace vestrel
