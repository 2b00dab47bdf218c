// Sums counts in a circle, and measures the sky around it.
//
// A pixel counts with the exact fraction of its square that lies in the circle, so that the sum
// changes smoothly as the circle moves. The sky is the sigma-clipped median of a ring (Da Costa
// 1992, ASP Conf. Ser. 23, 90; Stetson 1987, PASP 99, 191).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "image/libImage.h"

namespace vestrel {

/// The physical count of a pixel of the image.
inline double PhysicalCount(const PlateImage& image, std::int32_t x, std::int32_t y) {
    return static_cast<double>(image.Pixels(x, y)) + image.DataOffset;
}

/// Whole coordinates `First`..`Last`; empty when First > Last.
struct PixelRange {
    std::int32_t First = 0;
    std::int32_t Last = -1;
};

/// The pixels of 0..size − 1 whose squares come within `reach` of a coordinate. NaN gives an empty
/// range.
PixelRange PixelsWithin(double coordinate, double reach, std::int32_t size);

/// Calls `work(x, y, dx, dy)` for the pixels of the image whose centres lie within `radius` of a
/// point, with their offset from it along both axes.
template <typename Work>
void ForPixelsAround(const PlateImage& image, double x, double y, double radius, Work work) {
    const PixelRange columns = PixelsWithin(x, radius, image.Width);
    const PixelRange rows = PixelsWithin(y, radius, image.Height);
    for (std::int32_t row = rows.First; row <= rows.Last; ++row) {
        const double dy = row - y;
        for (std::int32_t column = columns.First; column <= columns.Last; ++column) {
            const double dx = column - x;
            if (dx * dx + dy * dy <= radius * radius) work(column, row, dx, dy);
        }
    }
}

/// The area that the circle of a radius about the origin shares with the unit square centred at
/// (dx, dy): 0..1.
double CirclePixelOverlap(double radius, double dx, double dy);

struct ApertureSum {
    double Sum = 0;          ///< physical counts
    double Area = 0;         ///< pixels
    double SquaredArea = 0;  ///< sum of the squared fractions of the pixels, for the noise
    bool Cut = false;        ///< part of the circle lies outside the image and is missing
};
/// The sum of the counts in a circle about (x, y).
/// @param radius pixels; NaN or at most 0 gives an empty sum
ApertureSum SumInAperture(const PlateImage& image, double x, double y, double radius);

struct LocalBackground {
    double Level = 0;        ///< physical counts
    double Scatter = 0;      ///< standard deviation of a pixel, counts
    std::int32_t Count = 0;  ///< pixels that remain after clipping
    /// The variance of a sum of pixels, per pixel, divided by that of a single pixel: 1 for
    /// independent pixels, more when the image was smoothed or comes from a compressed picture.
    double Correlation = 1;

    /// Standard deviation of `Level`, which is a median.
    double LevelError() const {
        return Count > 0 ? Scatter * std::sqrt(1.5708 * Correlation / Count) : 0;
    }
};

/// With fewer sky pixels than this, `MeasureBackground` returns a `Count` of 0.
inline constexpr std::int32_t FewestSkyPixels = 20;

/// The sky in the ring of pixel centres with `inner` < distance <= `outer` from (x, y). Stars in
/// the ring do no harm as long as they cover much less than half of it. Radii are pixels.
LocalBackground MeasureBackground(const PlateImage& image, double x, double y, double inner,
                                  double outer);

}  // namespace vestrel
