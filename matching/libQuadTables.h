// The table of one band, open for searches: quads of a shape, stars around a position.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "matching/libQuadFile.h"
#include "matching/libSkyCells.h"

namespace vestrel {

/// All calls throw `DamagedFile` when a page does not match its checksum.
class QuadTables {
 public:
    /// An empty table.
    QuadTables() = default;
    /// @param file holds the band that `ReadQuadBands` returned
    /// @param pool for its pages, shared with other tables; null for one of its own
    QuadTables(FileHandle file, const QuadBand& band, std::shared_ptr<PagePool> pool = nullptr);

    std::uint32_t QuadCount() const { return band_.QuadCount; }
    std::uint32_t StarCount() const { return band_.StarCount; }
    std::uint64_t BytesRead() const { return pages_.BytesRead(); }

    /// The quads whose distance from a shape is below `tolerance` and whose key differs by less
    /// than twice as much, in rising order of their keys. The one with the greatest key of the
    /// whole table is never among them.
    std::vector<CatalogQuad> QuadsLike(const Quad& shape, double tolerance);

    /// The stars no farther than `reach` (radians) from a position, and a few more, in the order of
    /// `ComesBefore`.
    std::vector<CatalogStar> StarsAround(SkyPosition centre, double reach);
    /// Visits the same stars in the same order, until `visit` returns false. Only the records that
    /// it needs are decoded: the cells have their brightest stars first, so this merges them.
    void VisitStarsAround(SkyPosition centre, double reach,
                          const std::function<bool(const CatalogStar&)>& visit);

    /// Reads everything. @throws DamagedFile
    void Check();

 private:
    /// The indices, from 0, of what neighbouring cells hold.
    struct Run {
        std::uint32_t Begin = 0;
        std::uint32_t End = 0;
    };
    /// The stars of a cell that are still to be visited, and the brightest of them.
    struct CellStars {
        Run Rest;
        CatalogStar Next;
    };
    Run RunOf(std::uint64_t starts, std::uint32_t cell, std::uint32_t cells, std::uint32_t most);
    CatalogQuad ReadQuad(std::uint32_t place);
    CatalogStar ReadStar(std::uint32_t place);

    QuadBand band_;
    QuadLayout layout_;
    CheckedPages pages_;
    std::optional<SkyCells> cells_;
    std::vector<std::uint32_t> passing_;   ///< in use while quads are compared
    std::vector<CellStars> visitedCells_;  ///< in use while stars are visited
};

/// The stars of the table within `radius` (radians) of a position and no fainter than `magLimit`,
/// at most 1000 (the brightest), brightest first. Sets the centre of `projection` to the position.
/// @return plane positions (arcseconds), magnitudes as fluxes, sky positions (radians)
PlateStarList NearbyCatalogStars(QuadTables& tables, Projection& projection, SkyPosition centre,
                                 double radius, double magLimit);

}  // namespace vestrel
