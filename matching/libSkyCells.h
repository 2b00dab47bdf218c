// The sphere in cells of about equal size: zones of declination, each in slices of right ascension.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "astro/libSphericalMath.h"

namespace vestrel {

class SkyCells {
 public:
    /// @param cellSize the height of a zone at most, radians
    explicit SkyCells(double cellSize);

    std::uint32_t Count() const { return first_.back(); }

    /// The cell that holds a position. Anything outside the sphere counts to a cell at its end.
    std::uint32_t CellOf(SkyPosition position) const;

    /// Calls `visit` with the first cell and the number of cells of each run of neighbours that a
    /// circle (radians) touches.
    void Around(SkyPosition centre, double radius,
                const std::function<void(std::uint32_t first, std::uint32_t count)>& visit) const;

 private:
    std::size_t ZoneOf(double dec) const;

    double height_;
    std::vector<std::uint32_t> first_;  ///< of each zone; last, the number of all cells
};

}  // namespace vestrel
