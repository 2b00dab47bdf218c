// Chooses the quads that images are to be looked up in.
//
// Which stars of an image form its quads depends on the frame: the three brightest ones within 1.5°
// of a star, of those that happen to lie inside. So frames are laid all over the sky, and the quads
// that they would form go into the tables.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "catalog/libCatalogCells.h"
#include "matching/libQuadFile.h"
#include "matching/libSkyCells.h"

namespace vestrel {

/// How the tables for one range of field sizes are made.
struct QuadPlan {
    double SmallestDiagonal = 0;  ///< degrees
    double LargestDiagonal = 0;   ///< degrees
    double FramesPerField = 0;    ///< how many frames overlap at any place of the sky
    int StarsPerFrame = 0;        ///< the brightest ones, which become the table's stars
    /// In narrow fields all quads of an image share its three brightest stars. Quads are then
    /// triples of nearly consecutive stars by brightness, with one fainter star that lies between
    /// them.
    bool SharedBrightest = false;
    int BrightestLost = 0;  ///< narrow: how many of the brightest stars an image may lack
    int Gaps = 0;           ///< narrow: stars that it may lack within the triple
    int CentralStars = 0;   ///< wide: so many of the brightest stars are centres of quads
    int Neighbours = 0;     ///< wide: three of so many brightest neighbours join each of them
};

/// The ranges and what was found to serve them (docs/QUADS.md), the smallest fields first.
const std::vector<QuadPlan>& QuadPlans();

/// The plans for fields whose diagonals lie in a range (degrees): none when there are no such.
std::vector<QuadPlan> PlansFor(double smallestDiagonal, double largestDiagonal);

/// Takes the stars of a catalog cell by cell and keeps those that the tables of some plans can
/// have.
class QuadSky {
 public:
    explicit QuadSky(const std::vector<QuadPlan>& plans);

    /// Adds the stars of a cell of the catalog.
    void Add(std::vector<CatalogStar> cell);
    /// To be called after the last cell.
    void Finish();

    /// Brightest first.
    const std::vector<CatalogStar>& Stars() const { return stars_; }

 private:
    SkyCells cells_;
    std::size_t mostInCell_ = 0;
    std::vector<CatalogStar> stars_;
};

/// Makes the table for one range. The result does not depend on the number of threads.
/// @param progress is told how much is done, on the calling thread; it may throw to stop
QuadList BuildQuadList(const QuadSky& sky, const QuadPlan& plan,
                       const std::function<void(int done, int total)>& progress = {});

}  // namespace vestrel
