// Sorts a stream of stars of any length into cell files.
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

namespace vestrel {

/// Builds the cell files of a catalog in an empty folder.
///
/// Stars are gathered as they come; when they fill the memory allowed they are put in the order of
/// their cells and appended to the cells' files. `Finish` then orders one cell at a time. So memory
/// holds the gathered stars twice or one cell, however many stars there are in all.
class CatalogBuilder {
 public:
    /// @param folder an existing, empty folder
    /// @param gatheredStars how many stars may be held in memory before they go to the files
    explicit CatalogBuilder(std::filesystem::path folder,
                            std::size_t gatheredStars = std::size_t{5} << 20);

    /// Adds a star to its cell. Throws a `ToolFailure` when the disk does not take it.
    /// @param source which source it is from, the most trusted one first
    void Add(const CatalogStar& star, unsigned char source = 0);

    /// Writes every cell of the grid (an empty file where there are no stars), brightest star
    /// first, equal magnitudes by position. Of records that are equal in every bit one is kept, so
    /// that overlapping exports can be given. A star that lies within 2" of one of an earlier
    /// source and differs from it by less than a magnitude is the same star and left out. The order
    /// in which the stars of a source were added does not matter. Throws a `ToolFailure` when the
    /// disk is full or one cell has more than
    /// `MostStarsInCell`.
    void Finish(ProgressLine& progress);

    const std::map<std::string, CellContent>& Cells() const { return contents_; }
    const MagnitudeCounts& Magnitudes() const { return counts_; }
    std::uint64_t Duplicates() const { return duplicateCount_; }
    /// How many stars were left out because an earlier source has them.
    std::uint64_t Merged() const { return mergedCount_; }

 private:
    /// A star and the numbers of its source and of its cell.
    struct SourceStar {
        CatalogStar Star;
        unsigned char Source = 0;
        std::uint16_t Cell = 0;
    };

    std::filesystem::path FileOf(std::size_t cell) const;
    void Sort();
    void Spill();
    std::vector<SourceStar> TakeCell(std::size_t cell);
    bool IsKnownBeyondTheEdge(const CatalogStar& star, unsigned char source);
    void Merge(std::vector<SourceStar>& stars);

    std::filesystem::path folder_;
    std::size_t limit_;
    std::vector<SourceStar> gathered_;
    std::vector<std::size_t> starts_;    ///< of each cell in the gathered stars, once sorted
    std::vector<std::uint64_t> onDisk_;  ///< stars of each cell
    std::map<std::string, CellContent> contents_;
    MagnitudeCounts counts_;
    std::uint64_t duplicateCount_ = 0;
    std::uint64_t mergedCount_ = 0;
    bool severalSources_ = false;
    /// Stars at the edges of cells by small boxes: those of another cell may be the same ones.
    std::unordered_map<std::uint64_t, std::vector<SourceStar>> edgeStars_;
};

}  // namespace vestrel
