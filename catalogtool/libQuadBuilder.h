// Chooses the quads for the tables in which images are looked up.
//
// The quads of an image depend on its frame: a star and the three brightest within 1.5° of it that
// lie inside. So frames are laid all over the sky, and the tables get the quads that these frames
// would form.
#pragma once

#include <cstddef>
#include <filesystem>
#include <vector>

#include "astro/libParallel.h"
#include "catalog/libCatalogCells.h"
#include "catalogtool/libQuadPlans.h"
#include "matching/libQuadFile.h"
#include "matching/libSkyCells.h"

namespace vestrel {

/// Receives the stars of a catalog cell by cell and keeps those that the tables of the given plans
/// can contain.
class QuadSky {
 public:
    explicit QuadSky(const std::vector<QuadPlan>& plans);

    /// Adds the stars of a cell of the catalog.
    void Add(std::vector<CatalogStar> cell);
    /// Must be called after the last cell.
    void Finish();

    /// Brightest first.
    const std::vector<CatalogStar>& Stars() const { return stars_; }

 private:
    SkyCells cells_;
    std::size_t mostInCell_ = 0;
    std::vector<CatalogStar> stars_;
};

/// Makes the table for one range, of stars of the sky, which must stay alive. The file that comes
/// of it does not depend on the number of threads.
/// @param overflow where quads go that are too many for the memory, as for `PackedQuads`
/// @param progress receives the progress on the calling thread; it may throw to stop
/// @throws std::system_error when the file cannot be written
QuadDraft BuildQuads(const QuadSky& sky, const QuadPlan& plan,
                     const std::filesystem::path& overflow = {}, const Progress& progress = {});

}  // namespace vestrel
