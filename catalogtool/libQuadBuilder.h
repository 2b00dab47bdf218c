// Chooses the quads for the tables in which images are looked up.
//
// The quads of an image depend on its frame: a star and the three brightest within 1.5° of it that
// lie inside. So frames are laid all over the sky, and the tables get the quads that these frames
// would form.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "catalog/libCatalogCells.h"
#include "matching/libQuadFile.h"
#include "matching/libSkyCells.h"

namespace vestrel {

/// How the table for one range of field sizes is made.
struct QuadPlan {
    double SmallestDiagonal = 0;  ///< degrees
    double LargestDiagonal = 0;   ///< degrees
    double FramesPerField = 0;    ///< how many frames overlap at any point of the sky
    int StarsPerFrame = 0;        ///< how many of the brightest become stars of the table
    /// In narrow fields all quads of an image share its three brightest stars. Quads are then
    /// triples of nearly consecutive stars by brightness, with one fainter star that lies between
    /// them.
    bool SharedBrightest = false;
    int BrightestLost = 0;  ///< narrow: how many of the brightest stars an image may lack
    int Gaps = 0;           ///< narrow: stars that it may lack within the triple
    int CentralStars = 0;   ///< wide: how many of the brightest stars are centres of quads
    int Neighbours = 0;     ///< wide: how many brightest neighbours each of them has; quads take
                            ///< three of these
};

/// The plans of all ranges, found by experiment (docs/QUADS.md), smallest fields first.
const std::vector<QuadPlan>& QuadPlans();

/// The plans for fields whose diagonals lie in a range (degrees): empty when there are none.
std::vector<QuadPlan> PlansFor(double smallestDiagonal, double largestDiagonal);

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
/// @param progress receives the progress on the calling thread; it may throw to stop
QuadDraft BuildQuads(const QuadSky& sky, const QuadPlan& plan,
                     const std::function<void(int done, int total)>& progress = {});

}  // namespace vestrel
