// Keeps recently read cells in memory between regions and solves.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "catalog/libCatalogCells.h"

namespace vestrel {

/// One cached cell.
struct CachedCell {
    std::int32_t StarCount = 0;  ///< in its file
    std::string CellName;
    std::vector<CatalogStar> Stars;  ///< 1-based; for a deep cell the brightest ones, as far as
                                     ///< read
    bool IsWhole = true;             ///< all stars of the file are in memory
    DeepCellFile File;               ///< of a cell that is not whole
    bool InUse = false;              ///< touched by the last `LoadRegion`
    std::int32_t Age = 0;            ///< regions since the cell was last touched

    bool BrightestFirst = false;  ///< the stars are in rising order of magnitude
    /// A circle on the sky that contains all stars; the radius in radians.
    Direction Centre{};
    double Radius = 0;
};

/// The stars of a cell that a wide region needed. There are few, but such a region may have more
/// cells than fit the cache.
struct BrightCell {
    CachedCell Cell;      ///< not whole: only stars brighter than the limit
    double MagLimit = 0;  ///< magnitudes
};

/// At most `MaxCells` cells and, between regions, `MaxStars` stars; the cells unused for longest
/// are dropped first.
struct CatalogCache {
    std::size_t MaxCells = 999;
    std::int64_t MaxStars = 5'000'000;

    std::filesystem::path Folder;  ///< where the cell files are
    std::vector<CachedCell> Cells;
    std::int32_t CachedStars = 0;                        ///< sum of `StarCount` over the cells
    std::unordered_map<std::string, std::size_t> Index;  ///< cell name to place in `Cells`
    std::unordered_map<std::string, BrightCell> Bright;  ///< by cell name
    std::uint64_t Changes = 0;                           ///< incremented whenever cells are loaded
                                                         ///< or dropped

    /// Makes sure that a cell is in the cache. A cell file that does not exist is created empty
    /// where that is possible, and counts as a cell without stars.
    /// @return the cell, until the next one is loaded or the cache is trimmed
    CachedCell& LoadCell(const std::string& name);

    /// Loads every cell that a circular region touches, marks these `InUse`, and trims the cache.
    /// @param radius radians
    void LoadRegion(SkyPosition centre, double radius);

    /// Calls visit(cell) for every cell that may hold a star within `angle` (radians) of a centre,
    /// in the order of the grid. The cell has all its stars that are brighter than `magLimit`. The
    /// region may be larger than the cache; those of its cells that are in it are marked `InUse`.
    void VisitRegion(SkyPosition centre, double angle, double magLimit,
                     const std::function<void(const CachedCell&)>& visit);

    /// Makes sure that all stars of a cell down to a magnitude are in memory. Cells of a few
    /// thousand stars are always whole; larger ones are read only as deep as needed.
    void ReadDownTo(CachedCell& cell, double magnitude) const;

    /// Whether `LoadRegion` would find all cells in memory, so that it would only change the order
    /// of last use.
    bool HoldsRegion(SkyPosition centre, double radius) const;
    /// Whether `ReadDownTo` would find all stars in memory.
    static bool HoldsDownTo(const CachedCell& cell, double magnitude);

 private:
    /// Marks no cell `InUse`, and all as unused for one region more.
    void AgeCells();
    /// Keeps the stars of a cell that are brighter than a limit, when they are few.
    void KeepBright(const CachedCell& cell, double magLimit);
    /// Drops the oldest cells until at most `MaxStars` stars are left.
    void Trim();
};

/// Whether there is a catalog for the last region.
enum class CatalogPresence {
    FolderMissing,  ///< no such folder
    NoCells,        ///< the folder holds no cell with stars
    NothingHere,    ///< no cell that the last region touched has stars
    Present
};
CatalogPresence PresenceOfCatalog(const CatalogCache& cache);

/// The first cell that the last `LoadRegion` touched whose file is longer than a cell can be: its
/// name, or nothing.
std::string OversizedCell(const CatalogCache& cache);

/// The first cell that the last `LoadRegion` touched whose file cannot be opened, or holds no whole
/// number of stars, or more than a cell can have: its name, or nothing.
std::string DamagedCell(const CatalogCache& cache);

/// Where the catalog ends in the cells that the last `LoadRegion` touched: the magnitude that 99 %
/// of their stars do not exceed. NaN when they have no stars.
double FaintEnd(const CatalogCache& cache);

}  // namespace vestrel
