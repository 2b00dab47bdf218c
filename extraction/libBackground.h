// The slowly varying sky background: a local percentile on a sparse grid, and its subtraction.
//
// Only one pixel in nine is sampled, and the percentile is found once per 3 × 3 block.
// libBoxPercentile does this for the usual box sizes; others use the sliding histogram of Huang,
// Yang & Tang 1979 (IEEE Trans. ASSP 27, 13).
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libParallel.h"
#include "image/libPixelGrid.h"

namespace vestrel {

/// Physical values are clamped to 0..LargestHistogramValue for the histogram.
inline constexpr std::int32_t LargestHistogramValue = 100000;

/// Counters for the values `Low`..`High`, with sums over blocks of values so that a percentile is
/// found without visiting every value. Counters may be negative.
struct ValueHistogram {
    std::int32_t Low = 0;
    std::int32_t High = -1;
    std::vector<std::int32_t> Counts;  ///< value v at index v − Low
    // Adding and removing have separate sums: neighbouring samples mostly fall into the same block,
    // and with one counter for both, each step would have to wait for the one before.
    std::vector<std::int32_t> BlockAdded;
    std::vector<std::int32_t> BlockRemoved;
    /// Counts the removed values that had not been added. Within a block, no running sum exceeds
    /// the sum of the block by more than that.
    std::vector<std::int32_t> BlockOwed;

    static constexpr int BlockShift = 5;

    ValueHistogram(std::int32_t low, std::int32_t high);
    void Clear();
    // All take values in Low..High; not checked.
    void Add(std::int32_t value) {
        const auto i = static_cast<std::size_t>(value - Low);
        ++Counts[i];
        ++BlockAdded[i >> BlockShift];
    }
    void Remove(std::int32_t value) {
        const auto i = static_cast<std::size_t>(value - Low);
        --Counts[i];
        ++BlockRemoved[i >> BlockShift];
    }
    /// Removes a value that has not been added before.
    void RemoveUnseen(std::int32_t value) {
        Remove(value);
        ++BlockOwed[static_cast<std::size_t>(value - Low) >> BlockShift];
    }
};

/// The value at which the running sum of the counters, from `Low` upward, first reaches
/// count × percentile / 100, rounded half to even; Low − 1 when that target is 0 or less, High
/// when it is never reached.
/// @param percentile 0..100
std::int32_t HistogramPercentile(const ValueHistogram& histogram, std::int32_t count,
                                 double percentile);

/// The background of an image, one value per block: column x belongs to block x / 3, row y to
/// block (y + 1) / 3.
struct BackgroundBlocks {
    std::int32_t Columns = 0;
    std::int32_t Rows = 0;
    PixelGrid Values;

    std::int32_t At(std::int32_t x, std::int32_t y) const { return Values(x / 3, (y + 1) / 3); }
};

/// Estimates the background of `width` × `height` physical values (stored value + `offset`).
///
/// The percentile is taken over a box of ±`halfSize` pixels, sampled every third pixel, after the
/// darkest and brightest 0.2 % of the image's samples have been clipped to their limits. The rows
/// that enter the box as it slides down are not those that leave it (see the .cpp file).
/// @param halfSize half the side of the box, pixels, 0 or more
/// @param percentile 0..100; 50 is the median
BackgroundBlocks EstimateBackgroundBlocks(const PixelGrid& values, std::int32_t offset,
                                          std::int32_t width, std::int32_t height,
                                          std::int16_t halfSize, double percentile,
                                          const Progress& progress = {});

/// Replaces a grid of physical values by its background map, as above; the spare column and row
/// stay as they are.
void EstimateBackground(PixelGrid& values, std::int32_t width, std::int32_t height,
                        std::int16_t halfSize, double percentile, const Progress& progress = {});

/// Subtracts a background from stored values and adds 100 counts: each physical value becomes value
/// − background + 100, clamped to 0..65535.
void SubtractBackgroundBlocks(PixelGrid& pixels, std::int32_t offset, std::int32_t width,
                              std::int32_t height, const BackgroundBlocks& background,
                              const Progress& progress = {});

}  // namespace vestrel
