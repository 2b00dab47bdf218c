// Chooses the quads that images are to be looked up in.
//
// Which stars of an image form its quads depends on the frame: the three brightest ones within 1.5°
// of a star, of those that happen to lie inside. So frames are laid all over the sky, and the quads
// that they would form go into the tables.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "catalog/libCatalogCells.h"
#include "matching/libQuads.h"

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

/// The ranges and what was found to serve them (docs/QUADS.md).
const std::vector<QuadPlan>& QuadPlans();

/// All stars of a catalog, brightest first.
struct QuadSky {
    /// Unit vector.
    struct Direction {
        double X = 0;
        double Y = 0;
        double Z = 0;
    };
    std::vector<CatalogStar> Stars;
    std::vector<Direction> Directions;  ///< of `Stars`
};
QuadSky MakeQuadSky(std::vector<CatalogStar> stars);

/// Makes the tables for one range. The result does not depend on the number of threads.
/// @param progress is told how much is done, on the calling thread; it may throw to stop
QuadTables BuildQuadTables(const QuadSky& sky, const QuadPlan& plan,
                           const std::function<void(int done, int total)>& progress = {});

}  // namespace vestrel
