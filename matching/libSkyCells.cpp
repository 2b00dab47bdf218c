#include "matching/libSkyCells.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vestrel {

namespace {

using std::numbers::pi;

}  // namespace

SkyCells::SkyCells(double cellSize) {
    const int zones = std::max(1, static_cast<int>(std::ceil(pi / cellSize)));
    height_ = pi / zones;
    std::uint32_t cells = 0;
    for (int z = 0; z < zones; ++z) {
        first_.push_back(cells);
        const double middle = (z + 0.5) * height_ - pi / 2;
        cells += static_cast<std::uint32_t>(std::max(1.0, 2 * pi * std::cos(middle) / height_));
    }
    first_.push_back(cells);
}

std::size_t SkyCells::ZoneOf(double dec) const {
    const double zone = std::floor((dec + pi / 2) / height_);
    const auto last = static_cast<double>(first_.size() - 2);
    return zone > 0 ? static_cast<std::size_t>(std::min(zone, last)) : 0;
}

std::uint32_t SkyCells::CellOf(SkyPosition position) const {
    const std::size_t zone = ZoneOf(position.Dec);
    const std::uint32_t slices = first_[zone + 1] - first_[zone];
    const double slice = std::floor(position.Ra / (2 * pi) * slices);
    return first_[zone] +
           (slice > 0 ? static_cast<std::uint32_t>(std::min(slice, slices - 1.0)) : 0);
}

void SkyCells::Around(
    SkyPosition centre, double radius,
    const std::function<void(std::uint32_t first, std::uint32_t count)>& visit) const {
    const bool pole = !(std::fabs(centre.Dec) + radius < pi / 2);
    const double reach =
        pole ? pi : std::asin(std::min(1.0, std::sin(radius) / std::cos(centre.Dec)));
    for (std::size_t z = ZoneOf(centre.Dec - radius); z <= ZoneOf(centre.Dec + radius); ++z) {
        const auto slices = static_cast<std::int64_t>(first_[z + 1] - first_[z]);
        const auto slice = [&](double at) {
            return static_cast<std::int64_t>(
                std::floor(at / (2 * pi) * static_cast<double>(slices)));
        };
        const std::int64_t low = slice(centre.Ra - reach);
        const std::int64_t count = std::min(slice(centre.Ra + reach) - low + 1, slices);
        const std::int64_t begin = (low % slices + slices) % slices;
        const std::int64_t beforeSeam = std::min(count, slices - begin);
        visit(first_[z] + static_cast<std::uint32_t>(begin),
              static_cast<std::uint32_t>(beforeSeam));
        if (count > beforeSeam) visit(first_[z], static_cast<std::uint32_t>(count - beforeSeam));
    }
}

}  // namespace vestrel
