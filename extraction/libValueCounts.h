// How often each value occurs in the samples of an image.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "image/libPixelGrid.h"

namespace vestrel {

/// Columns and rows of samples: every third pixel from the first one on, both ends included.
struct SampleRange {
    std::int64_t FirstX;
    std::int64_t LastX;
    std::int64_t FirstY;
    std::int64_t LastY;
};

/// Counts by rows, which the processors share.
/// @param numbers how many counters there are
/// @param countRow called with each y of the range, on several threads, and counters to add to
std::vector<std::uint32_t> CountByRows(
    const SampleRange& range, std::size_t numbers,
    const std::function<void(std::int32_t y, std::uint32_t* counts)>& countRow);

/// How often each rank (see `PixelRow`) occurs among the samples, which lie in 16-bit cells.
/// @return 65536 numbers
std::vector<std::uint32_t> CountRanks(const PixelGrid& pixels, const SampleRange& range);

}  // namespace vestrel
