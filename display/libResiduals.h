// Residuals of matched stars, prepared for drawing.
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libPlateStar.h"
#include "display/libSkyOverlay.h"

namespace vestrel {

/// A matched star: its place by the solution, and the offset of its measured place; pixels.
struct Residual {
    PixelPoint Predicted;
    double Dx = 0;
    double Dy = 0;
};

/// The lengths of residuals in bins of a round width: bin k holds those of k..k + 1 widths.
struct ResidualHistogram {
    double BinWidth = 0;  ///< pixels, 1, 2 or 5 times a power of ten
    std::vector<std::int32_t> Counts;
    double Median = 0;   ///< pixels
    double Largest = 0;  ///< pixels
};
/// At most `mostBins` bins (2 or more); empty without residuals.
ResidualHistogram HistogramOf(const std::vector<Residual>& residuals, int mostBins = 12);

/// The factor by which to enlarge residual vectors drawn over an image: 1, 2 or 5 times a power of
/// ten, so that 95 % of them are shorter than a twelfth of the shorter side. At least 1, and 1
/// without residuals.
double ResidualMagnification(const std::vector<Residual>& residuals, std::int32_t width,
                             std::int32_t height);

}  // namespace vestrel
