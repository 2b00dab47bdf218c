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

/// Builds the cell files of a catalog in an empty folder.
///
/// Stars are gathered in memory; when they fill the allowed memory they are sorted by cell and
/// appended, as one block, to a file that `Finish` removes. `Finish` collects the stars of one cell
/// after the other from all blocks. So memory holds the gathered stars and one cell, however many
/// stars there are in all.
class CatalogBuilder {
 public:
    /// @param folder an existing, empty folder
    /// @param gatheredStars how many stars are held in memory before they are written
    explicit CatalogBuilder(std::filesystem::path folder,
                            std::size_t gatheredStars = std::size_t{5} << 20);

    /// Adds a star to its cell. Throws a `ToolFailure` when writing fails.
    /// @param source rank of its source, 0 for the most trusted one
    void Add(const CatalogStar& star, unsigned char source = 0);

    /// Writes every cell of the grid (an empty file where there are no stars), brightest star
    /// first, equal magnitudes by position. Identical records are kept once, so that overlapping
    /// exports can be used. A star within 2" of one of an earlier source, with less than a
    /// magnitude of difference, counts as the same star and is left out. The order in which the
    /// stars of a source were added does not matter. Throws a `ToolFailure` when the disk is full
    /// or a cell has more than `MostStarsInCell` stars.
    void Finish(ProgressLine& progress);

    const std::map<std::string, CellContent>& Cells() const { return contents_; }
    const MagnitudeCounts& Magnitudes() const { return counts_; }
    std::uint64_t Duplicates() const { return duplicateCount_; }
    /// The number of stars left out because an earlier source has them.
    std::uint64_t Merged() const { return mergedCount_; }

 private:
    /// A star and the numbers of its source and of its cell.
    struct SourceStar {
        CatalogStar Star;
        unsigned char Source = 0;
        std::uint16_t Cell = 0;
    };

    std::filesystem::path FileOf(std::size_t cell) const;
    std::filesystem::path SpillFile() const;
    [[noreturn]] void FailToSpill() const;
    void Sort();
    void Spill();
    void ReadSpilled(std::uint64_t first, std::size_t count, std::vector<SourceStar>& stars);
    std::vector<SourceStar> TakeCell(std::size_t cell);
    bool IsKnownBeyondTheEdge(const CatalogStar& star, unsigned char source);
    void Merge(std::vector<SourceStar>& stars);

    std::filesystem::path folder_;
    std::size_t limit_;
    std::vector<SourceStar> gathered_;
    std::vector<std::size_t> starts_;  ///< first of the gathered stars of each cell, once sorted
    FileHandle spilled_;               ///< blocks of stars sorted by cell
    /// For each block, its first star of each cell, and its end: numbers of stars in the file.
    std::vector<std::vector<std::uint64_t>> blocks_;
    std::map<std::string, CellContent> contents_;
    MagnitudeCounts counts_;
    std::uint64_t duplicateCount_ = 0;
    std::uint64_t mergedCount_ = 0;
    bool severalSources_ = false;
    /// Stars at the edges of cells, by small boxes: a star of a neighbouring cell may be the same
    /// one.
    std::unordered_map<std::uint64_t, std::vector<SourceStar>> edgeStars_;
};

}  // namespace vestrel
