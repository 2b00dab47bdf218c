// Prepares a picture for the search for stars: binning, smoothing, and the level and noise around
// each place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "image/libImage.h"

namespace vestrel {

/// Counts in 32-bit floats, row by row.
struct Plane {
    std::int32_t Width = 0;   ///< pixels
    std::int32_t Height = 0;  ///< pixels
    std::vector<float> Values;

    /// All zero.
    Plane(std::int32_t width, std::int32_t height)
        : Width(width),
          Height(height),
          Values(static_cast<std::size_t>(width) * static_cast<std::size_t>(height)) {}
    float* Row(std::int32_t y) {
        return Values.data() + static_cast<std::ptrdiff_t>(y) * static_cast<std::ptrdiff_t>(Width);
    }
    const float* Row(std::int32_t y) const {
        return Values.data() + static_cast<std::ptrdiff_t>(y) * static_cast<std::ptrdiff_t>(Width);
    }
    bool Inside(std::int32_t x, std::int32_t y) const {
        return x >= 0 && y >= 0 && x < Width && y < Height;
    }
};

/// Calls work(first row, row after the last) for bands of rows, on several threads.
void ForRows(std::int32_t height, const std::function<void(std::int32_t, std::int32_t)>& work);

/// The mean stored value of every square of `binning` columns and rows.
Plane Binned(const PlateImage& image, std::int32_t binning);

/// Smooths with a Gaussian of standard deviation 1.2 pixels, along rows and then columns. The edge
/// pixels are repeated beyond the edges.
Plane Smoothed(const Plane& plane);

struct LevelAndNoise {
    float Level;
    float Noise;  ///< standard deviation, at least 0.4, because pictures are quantised
};

/// Level and noise of a plane in cells of 32 × 32 pixels: the median, and the spread below it.
class SkyMesh {
 public:
    explicit SkyMesh(const Plane& plane);

    /// Level and noise at a pixel, interpolated between the centres of the cells.
    LevelAndNoise At(std::int32_t x, std::int32_t y) const;

 private:
    static constexpr std::int32_t cell = 32;

    std::size_t Place(std::int32_t column, std::int32_t row) const {
        return static_cast<std::size_t>(row) * static_cast<std::size_t>(columns_) +
               static_cast<std::size_t>(column);
    }
    static LevelAndNoise Measure(const Plane& plane, std::int32_t column, std::int32_t row,
                                 std::vector<float>& values);
    LevelAndNoise MedianAround(const std::vector<LevelAndNoise>& raw, std::int32_t column,
                               std::int32_t row) const;

    std::int32_t columns_;
    std::int32_t rows_;
    std::vector<LevelAndNoise> cells_;
};

}  // namespace vestrel
