// Sorts any number of stars into cell files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libCatalogManifest.h"
#include "catalogtool/libToolReport.h"
#include "platform/libFiles.h"

namespace vestrel {

/// A star and its place in the catalog.
struct PlacedStar {
    CatalogStar Star;
    unsigned char Source = 0;  ///< rank of its source, 0 for the most trusted one
    bool IsAtEdge = false;     ///< another cell may hold the same star
    std::uint16_t Cell = 0;    ///< its number in `AllCells`
};

/// Finds the place of a star.
PlacedStar PlaceOf(const CatalogStar& star, unsigned char source);

/// Builds the cell files of a catalog in an empty folder.
///
/// Stars are gathered in memory; when they fill the allowed memory they are sorted by cell, in
/// runs, and appended to a file that `Finish` removes. `Finish` collects the stars of one cell
/// after the other from all runs. So memory holds the gathered stars and a few cells, however
/// many stars there are in all.
class CatalogBuilder {
 public:
    /// @param folder an existing, empty folder
    /// @param gatheredStars how many stars are held in memory before they are written
    explicit CatalogBuilder(std::filesystem::path folder,
                            std::size_t gatheredStars = std::size_t{5} << 20);

    /// Adds a star to its cell. Throws a `ToolFailure` when writing fails.
    void Add(const PlacedStar& star);
    void Add(const CatalogStar& star, unsigned char source = 0) { Add(PlaceOf(star, source)); }

    /// Writes every cell of the grid (an empty file where there are no stars), brightest star
    /// first, equal magnitudes by position. Identical records are kept once, so that overlapping
    /// exports can be used. A star within 2" of one of an earlier source, with less than a
    /// magnitude of difference, counts as the same star and is left out. The order in which the
    /// stars of a source were added and the number of threads do not matter. Throws a `ToolFailure`
    /// when the disk is full or a cell has more than `MostStarsInCell` stars.
    void Finish(ProgressLine& progress);

    const std::map<std::string, CellContent>& Cells() const { return contents_; }
    const MagnitudeCounts& Magnitudes() const { return counts_; }
    std::uint64_t Duplicates() const { return duplicateCount_; }
    /// The number of stars left out because an earlier source has them.
    std::uint64_t Merged() const { return mergedCount_; }

 private:
    /// Stars that are sorted by cell.
    struct SortedRun {
        std::uint64_t First = 0;            ///< number of its first star in memory or in the file
        std::vector<std::uint32_t> Starts;  ///< of each cell, counted from there, and the end

        std::size_t StarsIn(std::size_t cell) const { return Starts[cell + 1] - Starts[cell]; }
    };
    /// What was written to a cell file, and what was left out.
    struct WrittenCell {
        CellContent Content;
        std::uint64_t Duplicates = 0;
        std::uint64_t Merged = 0;
    };
    /// The stars of consecutive cells.
    using CellStars = std::vector<std::vector<PlacedStar>>;

    std::filesystem::path FileOf(std::size_t cell) const;
    std::filesystem::path SpillFile() const;
    [[noreturn]] void FailToSpill() const;
    void Sort();
    void Spill();
    std::uint64_t StarsIn(std::size_t cell) const;
    CellStars TakeCells(std::size_t firstCell);
    void ReadSpilled(const SortedRun& run, std::size_t firstCell, CellStars& cells);
    WrittenCell WriteCell(std::size_t cell, std::vector<PlacedStar>& stars) const;
    bool IsKnownBeyondTheEdge(const PlacedStar& star);

    std::filesystem::path folder_;
    std::size_t limit_;
    std::vector<PlacedStar> gathered_;
    std::vector<SortedRun> gatheredRuns_;
    FileHandle spilled_;
    std::uint64_t spilledStars_ = 0;
    std::vector<SortedRun> spilledRuns_;
    std::map<std::string, CellContent> contents_;
    MagnitudeCounts counts_;
    std::uint64_t duplicateCount_ = 0;
    std::uint64_t mergedCount_ = 0;
    bool severalSources_ = false;
    /// Stars at the edges of cells, by small boxes: a star of a neighbouring cell may be the same
    /// one.
    std::unordered_map<std::uint64_t, std::vector<PlacedStar>> edgeStars_;
};

}  // namespace vestrel
