// Percentiles of the samples in a box that slides over an image: what the background is made of.
#pragma once

#include <cstdint>

#include "astro/libGrid.h"

namespace vestrel {

/// The samples of an image: every third column from 0 on, their physical values (stored +
/// `Offset`) held within `Darkest`..`Brightest`.
struct BoxSamples {
    const Grid<std::int32_t>& Values;
    std::int32_t Offset;
    std::int32_t Width;   ///< of the image, pixels
    std::int32_t Height;  ///< of the image, pixels
    std::int32_t Low;     ///< the histogram's first value: Darkest or one below
    std::int32_t High;    ///< the histogram's last value: Brightest or one above
    std::int32_t Darkest;
    std::int32_t Brightest;
};

/// Whether `BoxPercentiles` can do boxes of this half-size: whole steps, counters of 16 bits.
constexpr bool HasBoxPercentiles(std::int32_t halfSize) {
    return halfSize >= 3 && halfSize <= 90 && halfSize % 3 == 0;
}

/// The percentiles of the boxes in the columns `first`..`end` − 1 of blocks, from the top down.
///
/// The box of block column c reaches over the samples c ± halfSize / 3. The first box of a column
/// holds the rows 1, 4, 7, … up to `halfSize`; sliding down to the row centres 2, 5, 8, … takes out
/// row centre − halfSize, though it may never have been put in, and puts in row centre + halfSize.
///
/// One histogram a column of samples: sliding down takes one sample out of it and puts one in, and
/// sliding right adds a column's histogram to the box and subtracts another's, so that the size of
/// the box does not matter (Perreault & Hébert 2007, IEEE Trans. Image Process. 16, 2389). The
/// histograms are trees of three levels. A node holds the running sums of its 16 children, which
/// add up as counters do, and one comparison of 16 numbers finds the child in which the sum is
/// reached. Nodes of the box are only brought up to date when a search comes to them. Where values
/// spread over more than 4096, a leaf stands for several, and those few samples of the box that
/// are in the leaf decide (`LeafSamples`). As rows leave that never came, sums may fall from child
/// to child: each child has an excess, the most that a sum inside it can lie above the sum at its
/// end, and is looked into when sum and excess reach the target.
///
/// Where values spread that far, most of them are still close together (a sky with hot pixels): a
/// strip is first tried with samples held within a window of 2047 values, which moves no percentile
/// that lies inside it, and done again when one lies outside.
///
/// @param rows   of blocks
/// @param blocks indexed by the column and row of the block
void BoxPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                    std::int32_t first, std::int32_t end, std::int32_t rows,
                    Grid<std::int32_t>& blocks);

/// How many columns of blocks are best done in one call, so that their histograms stay in the
/// cache.
std::int32_t BoxPercentileColumns(const BoxSamples& samples);

}  // namespace vestrel
