#include "extraction/libSkyPlane.h"

#include <algorithm>
#include <array>

#include "astro/libParallel.h"

namespace vestrel {

namespace {

constexpr std::int32_t rowsPerPiece = 64;

/// Pictures are quantised: without noise every ripple would be a star.
constexpr float leastNoise = 0.4F;

float Held(float value, std::int32_t count) {
    return std::clamp(value, 0.0F, static_cast<float>(count - 1));
}

}  // namespace

void ForRows(std::int32_t height, const std::function<void(std::int32_t, std::int32_t)>& work) {
    ParallelFor((height + rowsPerPiece - 1) / rowsPerPiece, [&](int piece) {
        const std::int32_t first = piece * rowsPerPiece;
        work(first, std::min(first + rowsPerPiece, height));
    });
}

Plane Binned(const PlateImage& image, std::int32_t binning) {
    Plane plane(image.Width / binning, image.Height / binning);
    const float part = 1.0F / static_cast<float>(binning * binning);
    ForRows(plane.Height, [&](std::int32_t first, std::int32_t end) {
        for (std::int32_t y = first; y < end; ++y) {
            float* row = plane.Row(y);
            for (std::int32_t dy = 0; dy < binning; ++dy) {
                image.Pixels.VisitRow(y * binning + dy, [&](auto from) {
                    for (std::int32_t x = 0; x < plane.Width; ++x) {
                        std::int64_t sum = 0;
                        for (std::int32_t dx = 0; dx < binning; ++dx) sum += from[x * binning + dx];
                        row[x] += static_cast<float>(sum) * part;
                    }
                });
            }
        }
    });
    return plane;
}

Plane Smoothed(const Plane& plane) {
    constexpr std::array<float, 4> weights{0.3345F, 0.2364F, 0.0834F, 0.0130F};
    constexpr std::int32_t reach = 3;
    Plane rows(plane.Width, plane.Height);
    ForRows(plane.Height, [&](std::int32_t first, std::int32_t end) {
        for (std::int32_t y = first; y < end; ++y) {
            const float* from = plane.Row(y);
            float* to = rows.Row(y);
            for (std::int32_t x = 0; x < plane.Width; ++x) {
                float sum = weights[0] * from[x];
                for (std::int32_t d = 1; d <= reach; ++d) {
                    sum += weights[static_cast<std::size_t>(d)] *
                           (from[std::max(x - d, 0)] + from[std::min(x + d, plane.Width - 1)]);
                }
                to[x] = sum;
            }
        }
    });
    Plane smoothed(plane.Width, plane.Height);
    ForRows(plane.Height, [&](std::int32_t first, std::int32_t end) {
        for (std::int32_t y = first; y < end; ++y) {
            float* to = smoothed.Row(y);
            const float* middle = rows.Row(y);
            for (std::int32_t x = 0; x < plane.Width; ++x) to[x] = weights[0] * middle[x];
            for (std::int32_t d = 1; d <= reach; ++d) {
                const float* above = rows.Row(std::max(y - d, 0));
                const float* below = rows.Row(std::min(y + d, plane.Height - 1));
                const float weight = weights[static_cast<std::size_t>(d)];
                for (std::int32_t x = 0; x < plane.Width; ++x)
                    to[x] += weight * (above[x] + below[x]);
            }
        }
    });
    return smoothed;
}

SkyMesh::SkyMesh(const Plane& plane)
    : columns_((plane.Width + cell - 1) / cell), rows_((plane.Height + cell - 1) / cell) {
    std::vector<LevelAndNoise> raw(static_cast<std::size_t>(columns_) *
                                   static_cast<std::size_t>(rows_));
    ParallelFor(rows_, [&](int row) {
        std::vector<float> values;
        for (std::int32_t column = 0; column < columns_; ++column) {
            raw[Place(column, row)] = Measure(plane, column, row, values);
        }
    });
    // A large star fills its cell, so the median of the surrounding cells replaces it.
    cells_ = raw;
    for (std::int32_t row = 0; row < rows_; ++row) {
        for (std::int32_t column = 0; column < columns_; ++column) {
            cells_[Place(column, row)] = MedianAround(raw, column, row);
        }
    }
}

LevelAndNoise SkyMesh::At(std::int32_t x, std::int32_t y) const {
    const float u = Held((static_cast<float>(x) + 0.5F) / cell - 0.5F, columns_);
    const float v = Held((static_cast<float>(y) + 0.5F) / cell - 0.5F, rows_);
    const auto column = static_cast<std::int32_t>(u);
    const auto row = static_cast<std::int32_t>(v);
    const float fx = u - static_cast<float>(column);
    const float fy = v - static_cast<float>(row);
    const std::int32_t nextColumn = std::min(column + 1, columns_ - 1);
    const std::int32_t nextRow = std::min(row + 1, rows_ - 1);
    LevelAndNoise sum{0, 0};
    const auto add = [&](std::int32_t c, std::int32_t r, float weight) {
        const LevelAndNoise& one = cells_[Place(c, r)];
        sum.Level += weight * one.Level;
        sum.Noise += weight * one.Noise;
    };
    add(column, row, (1 - fx) * (1 - fy));
    add(nextColumn, row, fx * (1 - fy));
    add(column, nextRow, (1 - fx) * fy);
    add(nextColumn, nextRow, fx * fy);
    return sum;
}

LevelAndNoise SkyMesh::Measure(const Plane& plane, std::int32_t column, std::int32_t row,
                               std::vector<float>& values) {
    values.clear();
    for (std::int32_t y = row * cell; y < std::min((row + 1) * cell, plane.Height); ++y) {
        const float* from = plane.Row(y);
        for (std::int32_t x = column * cell; x < std::min((column + 1) * cell, plane.Width); ++x) {
            values.push_back(from[x]);
        }
    }
    const auto at = [&values](double part) {
        const auto place =
            static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
        std::nth_element(values.begin(), values.begin() + place, values.end());
        return values[static_cast<std::size_t>(place)];
    };
    // Stars raise the upper half of the values; the lower half belongs to the sky.
    const float median = at(0.5);
    const float low = at(0.1587);
    return {median, std::max(median - low, leastNoise)};
}

LevelAndNoise SkyMesh::MedianAround(const std::vector<LevelAndNoise>& raw, std::int32_t column,
                                    std::int32_t row) const {
    std::vector<float> levels;
    std::vector<float> noises;
    for (std::int32_t r = std::max(row - 1, 0); r <= std::min(row + 1, rows_ - 1); ++r) {
        for (std::int32_t c = std::max(column - 1, 0); c <= std::min(column + 1, columns_ - 1);
             ++c) {
            levels.push_back(raw[Place(c, r)].Level);
            noises.push_back(raw[Place(c, r)].Noise);
        }
    }
    const auto median = [](std::vector<float>& list) {
        const auto middle = list.begin() + static_cast<std::ptrdiff_t>(list.size() / 2);
        std::nth_element(list.begin(), middle, list.end());
        return *middle;
    };
    const LevelAndNoise& own = raw[Place(column, row)];
    return {std::min(own.Level, median(levels)), median(noises)};
}

}  // namespace vestrel
