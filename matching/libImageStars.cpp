#include "matching/libImageStars.h"

#include <algorithm>
#include <cmath>

#include "matching/libStarPlaces.h"

namespace vestrel {

namespace {

constexpr std::int32_t densityCells = 8;  // along each side

}  // namespace

ImageStars::ImageStars(const PlateStarList& stars, std::int32_t width, std::int32_t height)
    : stars_(stars), width_(width), height_(height) {
    const std::int32_t count = stars.Count();
    constexpr double smallestSide = 8;
    const double area = static_cast<double>(width) * height;
    side_ = std::max(smallestSide, std::sqrt(area / std::max(count, 1) / 2));
    columns_ = static_cast<std::int32_t>(width / side_) + 1;
    rows_ = static_cast<std::int32_t>(height / side_) + 1;
    starts_.assign(static_cast<std::size_t>(columns_) * static_cast<std::size_t>(rows_) + 1, 0);
    const auto bucketOf = [this](std::int32_t i) {
        const PlateStar& star = stars_[i];
        return Bucket(XOf(star), YOf(star));
    };
    for (std::int32_t i = 1; i <= count; ++i) ++starts_[bucketOf(i) + 1];
    for (std::size_t b = 1; b < starts_.size(); ++b) starts_[b] += starts_[b - 1];
    order_.resize(static_cast<std::size_t>(count));
    std::vector<std::int32_t> next(starts_.begin(), starts_.end() - 1);
    for (std::int32_t i = 1; i <= count; ++i) {
        order_[static_cast<std::size_t>(next[bucketOf(i)]++)] = i;
    }

    const double mean = count / area;
    const double cellArea = area / (densityCells * densityCells);
    density_.assign(static_cast<std::size_t>(densityCells) * densityCells, 0);
    for (std::int32_t i = 1; i <= count; ++i) {
        const PlateStar& star = stars_[i];
        const auto column = static_cast<std::size_t>(
            std::clamp(XOf(star) / width * densityCells, 0.0, densityCells - 1.0));
        const auto row = static_cast<std::size_t>(
            std::clamp(YOf(star) / height * densityCells, 0.0, densityCells - 1.0));
        density_[row * densityCells + column] += 1 / cellArea;
    }
    for (double& density : density_) density = std::max(density, mean);
}

std::size_t ImageStars::Bucket(double x, double y) const {
    const auto column = std::clamp(static_cast<std::int32_t>(x / side_), 0, columns_ - 1);
    const auto row = std::clamp(static_cast<std::int32_t>(y / side_), 0, rows_ - 1);
    return static_cast<std::size_t>(row) * static_cast<std::size_t>(columns_) +
           static_cast<std::size_t>(column);
}

std::size_t ImageStars::DensityCell(double x, double y) const {
    const auto column =
        static_cast<std::size_t>(std::clamp(x / width_ * densityCells, 0.0, densityCells - 1.0));
    const auto row =
        static_cast<std::size_t>(std::clamp(y / height_ * densityCells, 0.0, densityCells - 1.0));
    return row * densityCells + column;
}

std::int32_t ImageStars::Nearest(double x, double y, double reach) const {
    const auto first = [this](double value, std::int32_t count) {
        return std::clamp(static_cast<std::int32_t>(value / side_), 0, count - 1);
    };
    double best = reach * reach;
    std::int32_t nearest = 0;
    for (std::int32_t row = first(y - reach, rows_); row <= first(y + reach, rows_); ++row) {
        for (std::int32_t column = first(x - reach, columns_); column <= first(x + reach, columns_);
             ++column) {
            const std::size_t bucket =
                static_cast<std::size_t>(row) * static_cast<std::size_t>(columns_) +
                static_cast<std::size_t>(column);
            for (std::int32_t place = starts_[bucket]; place < starts_[bucket + 1]; ++place) {
                const std::int32_t i = order_[static_cast<std::size_t>(place)];
                const double dx = XOf(stars_[i]) - x;
                const double dy = YOf(stars_[i]) - y;
                const double distance = dx * dx + dy * dy;
                if (distance < best) {
                    best = distance;
                    nearest = i;
                }
            }
        }
    }
    return nearest;
}

}  // namespace vestrel
