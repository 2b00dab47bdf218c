// Finds the nearest of many triangles in the plane of their two ratios by comparing those in a few
// cells of a grid.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "astro/libParallel.h"
#include "matching/libTriangleColumns.h"
#include "matching/libTriangles.h"

namespace vestrel {

/// The triangles of a star list, sorted into square cells of the plane of their ratios (a bucket
/// grid: Bentley, Weide & Yao 1980, ACM Trans. Math. Softw. 6, 563), three to two cells.
class TriangleGrid {
 public:
    /// Makes the triangles of stars 1..n of a list, as `BuildTriangleColumns`. The memory of those
    /// that it had is used again.
    void Build(const PlateStarList& list, std::int32_t n);

    std::int32_t Count() const { return triangles_.Count; }

 private:
    friend class GridVoter;

    double cellSide_ = 1;
    std::int32_t columns_ = 0;          ///< cells in a row
    std::int32_t rows_ = 0;             ///< of cells
    bool isCrowded_ = false;            ///< three neighbouring cells have more triangles than a key
                                        ///< can tell apart
    TriangleColumns triangles_;         ///< in the order of their stars
    std::vector<std::int32_t> cells_;   ///< of each triangle
    std::vector<std::int32_t> starts_;  ///< where the triangles of each cell begin in the lists
                                        ///< below, row by row, and the end
    // Of the triangles cell by cell, so that those that are compared lie together:
    std::vector<std::int32_t> order_;  ///< their indices
    std::vector<TriangleCorners> corners_;
    std::vector<float> short_;  ///< in single precision; at the end some that are far away
    std::vector<float> mid_;
};

/// Votes like `VoteTriangles`, but from unsorted triangles.
///
/// The nearest triangle is nearly always among those of the 3 × 3 cells around a place. Each row of
/// three cells lies together in memory and is compared eight triangles at a time, in single
/// precision; reading beyond the end only adds other triangles, which do no harm. The two nearest
/// are kept. The first one is taken when it is nearer than the second, than the edge of the
/// 3 × 3 cells and than the limits of a vote by more than rounding can be. Otherwise, in about
/// one of a hundred cases, all cells within reach are searched one by one in double precision.
///
/// The outer triangles are taken cell by cell too, so that what is compared stays in the first
/// cache and the processor foresees how many there are.
///
/// @param outer        the shorter list of triangles
/// @param inner        the other one
/// @param outerIsFirst whether the stars of `outer` are those of list 1
/// @return how many triangles voted; empty when the result depends on the order of sorted lists,
///         because two triangles are equally near or one lies exactly at the edge of the search.
///         Then the table must not be used.
std::optional<std::int32_t> VoteByGrid(VoteTable& votes, const TriangleGrid& outer,
                                       const TriangleGrid& inner, bool outerIsFirst,
                                       double tolerance, const Progress& progress = {});

}  // namespace vestrel
