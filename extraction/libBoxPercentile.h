// Percentiles of the samples in a box that slides over an image, for the background.
#pragma once

#include <cstdint>

#include "image/libPixelGrid.h"

namespace vestrel {

/// The samples of an image: every third column from 0 on, their physical values (stored + `Offset`)
/// clamped to `Darkest`..`Brightest`.
struct BoxSamples {
    const PixelGrid& Values;
    std::int32_t Offset;
    std::int32_t Width;   ///< of the image, pixels
    std::int32_t Height;  ///< of the image, pixels
    std::int32_t Low;     ///< the histogram's first value: Darkest or one below
    std::int32_t High;    ///< the histogram's last value: Brightest or one above
    std::int32_t Darkest;
    std::int32_t Brightest;
};

/// Whether `BoxPercentiles` can handle boxes of this half-size (pixels): it needs whole steps and
/// counts that fit 16 bits.
constexpr bool HasBoxPercentiles(std::int32_t halfSize) {
    return halfSize >= 3 && halfSize <= 90 && halfSize % 3 == 0;
}

/// The percentiles of the boxes in the columns `first`..`end` − 1 of blocks, from the top down.
///
/// The box of block column c reaches over the samples c ± halfSize / 3. The first box of a column
/// holds the rows 1, 4, 7, … up to `halfSize`; sliding down to the row centres 2, 5, 8, … removes
/// row centre − halfSize, even if it was never added, and adds row centre + halfSize.
///
/// Neighbouring columns of samples differ little for their boxes, so columns keep running sums,
/// which a box adds as it slides to the right and subtracts again (Perreault & Hébert 2007, IEEE
/// Trans. Image Process. 16, 2389): the cost depends on the size of the box little. They are sums
/// up to neighbouring values (`NearPercentiles`) where the percentiles of a strip lie close
/// together, as in a sky, else up to ranks of the strip's samples (`RankPercentiles`).
///
/// @param rows number of rows of blocks
/// @param blocks indexed by the column and row of the block; its cells must fit `Low` − 1..`High`
void BoxPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                    std::int32_t first, std::int32_t end, std::int32_t rows, PixelGrid& blocks);

/// How many columns of blocks to process in one call, at most: their columns of samples must have
/// numbers below 127 (`RankPercentiles`), and what is kept of them fit a processor's cache.
inline constexpr std::int32_t BoxPercentileColumns = 64;

}  // namespace vestrel
