// Percentiles of the samples in a box that slides over an image, for the background.
#pragma once

#include <cstdint>

#include "astro/libGrid.h"
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
/// Each column of samples has a histogram. Sliding down removes one sample from it and adds one;
/// sliding right adds a column's histogram to that of the box and subtracts another, so the cost
/// does not depend on the size of the box (Perreault & Hébert 2007, IEEE Trans. Image Process. 16,
/// 2389). The histograms are trees of three levels. A node holds the running sums of its 16
/// children, which can be added like counters, and one comparison of 16 numbers finds the child in
/// which a sum is reached. Nodes of the box are updated only when a search reaches them. When
/// values span more than 4096, a leaf stands for several values, and the few samples of the box in
/// that leaf decide (`LeafSamples`). Because rows are removed that were never added, sums may fall
/// from child to child. Each child therefore has an excess: the most by which a sum inside it can
/// exceed the sum at its end. A child is searched when sum plus excess reaches the target.
///
/// On processors with AVX2 most strips need none of this, as their percentiles lie close together
/// (`NearPercentiles`).
///
/// @param rows number of rows of blocks
/// @param blocks indexed by the column and row of the block
void BoxPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                    std::int32_t first, std::int32_t end, std::int32_t rows,
                    Grid<std::int32_t>& blocks);

/// How many columns of blocks to process in one call: their histograms take up to 730 KB, which the
/// cache of a processor holds.
inline constexpr std::int32_t BoxPercentileColumns = 64;

}  // namespace vestrel
