// The sphere divided into cells of about equal size: zones of declination, each cut into slices of
// right ascension.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "astro/libSphericalMath.h"

namespace vestrel {

class SkyCells {
 public:
    /// @param cellSize the largest height of a zone, radians
    explicit SkyCells(double cellSize);

    std::uint32_t Count() const { return first_.back(); }

    /// The cell that holds a position. Positions out of range belong to the nearest cell.
    std::uint32_t CellOf(SkyPosition position) const;

    /// Calls `visit` for each run of neighbouring cells that a circle (radians) touches, with the
    /// first cell and their number.
    void Around(SkyPosition centre, double radius,
                const std::function<void(std::uint32_t first, std::uint32_t count)>& visit) const;

 private:
    std::size_t ZoneOf(double dec) const;

    double height_;
    std::vector<std::uint32_t> first_;  ///< first cell of each zone; last, the number of all cells
};

}  // namespace vestrel
