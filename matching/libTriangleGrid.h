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

/// Triangles sorted into square cells of the plane of their ratios (a bucket grid: Bentley, Weide &
/// Yao 1980, ACM Trans. Math. Softw. 6, 563), about two to a cell.
///
/// The nearest one is nearly always among those of the 3 × 3 cells around a place. Each row of
/// three cells lies together in memory and is compared four triangles at a time; reading beyond the
/// end only adds other triangles, which do no harm. A distance is only trusted when it is shorter
/// than the distance to the edge of the 3 × 3 cells. Otherwise, and when two triangles seem to be
/// equally near, all cells within reach are searched one by one.
class TriangleGrid {
 public:
    TriangleGrid() = default;
    explicit TriangleGrid(const TriangleColumns& triangles);

    std::int32_t Count() const { return count_; }

 private:
    friend class GridSearch;

    std::int32_t count_ = 0;
    double cellSide_ = 1;
    std::int32_t columns_ = 0;  ///< cells in a row
    std::int32_t rows_ = 0;     ///< of cells
    std::vector<std::int32_t>
        starts_;                 ///< the first triangle of each cell, row by row, and the end
    TriangleColumns triangles_;  ///< cell by cell, then padding that is far from everything
};

/// Votes like `VoteTriangles`, but from unsorted triangles.
///
/// @param outer        the shorter list of triangles, in any order
/// @param inner        the other one
/// @param outerIsFirst whether the stars of `outer` are those of list 1
/// @return how many triangles voted; empty when the result depends on the order of sorted lists,
///         because two triangles are equally near or one lies exactly at the edge of the search.
///         Then the table must not be used.
std::optional<std::int32_t> VoteByGrid(VoteTable& votes, const TriangleColumns& outer,
                                       const TriangleGrid& inner, bool outerIsFirst,
                                       double tolerance, const Progress& progress = {});

}  // namespace vestrel
