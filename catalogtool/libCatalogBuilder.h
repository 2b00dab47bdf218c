// Sorts a stream of stars of any length into cell files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libCatalogManifest.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// Builds the cell files of a catalog in an empty folder.
///
/// Stars are gathered by cell; when the gathered ones fill the memory allowed they are appended to
/// the cells' files, unordered. `Finish` then orders one cell at a time. So memory holds the
/// gathered stars or one cell, however many stars there are in all.
class CatalogBuilder {
 public:
    /// @param folder an existing, empty folder
    /// @param gatheredStars how many stars may be held in memory before they go to the files
    explicit CatalogBuilder(std::filesystem::path folder,
                            std::size_t gatheredStars = std::size_t{5} << 20);

    /// Adds a star to its cell. Throws a `ToolFailure` when the disk does not take it.
    void Add(const CatalogStar& star);

    /// Writes every cell of the grid (an empty file where there are no stars), brightest star
    /// first, equal magnitudes by position. Of records that are equal in every bit one is kept, so
    /// that overlapping exports can be given. The order in which stars were added does not matter.
    /// Throws a `ToolFailure` when the disk is full or one cell has more than 50 million stars.
    void Finish(ProgressLine& progress);

    const std::map<std::string, CellContent>& Cells() const { return Contents; }
    const MagnitudeCounts& Magnitudes() const { return Counts; }
    std::uint64_t Duplicates() const { return DuplicateCount; }

 private:
    struct Gathering {
        std::vector<CatalogStar> Stars;
        std::uint64_t OnDisk = 0;
    };

    std::filesystem::path FileOf(std::size_t cell) const;
    void Spill();
    std::vector<CatalogStar> TakeCell(std::size_t cell);

    std::filesystem::path Folder;
    std::size_t Limit;
    std::size_t Gathered = 0;
    std::vector<Gathering> Gatherings;
    std::map<std::string, CellContent> Contents;
    MagnitudeCounts Counts;
    std::uint64_t DuplicateCount = 0;
};

}  // namespace vestrel
