// Percentiles of sliding boxes that lie near those of their neighbours, as in a sky.
#pragma once

#include <cstdint>

#include "extraction/libBoxPercentile.h"

namespace vestrel {

/// The same numbers as `BoxPercentiles`, at a quarter of its cost where the percentiles of a row of
/// blocks lie close together.
///
/// Each column of samples keeps 64 running sums: of its samples up to each of 64 neighbouring
/// values, a window about the percentiles. One vector comparison finds all sums that a sample
/// belongs to, so sliding down needs no search; sliding right adds the sums of a column and
/// subtracts those of another (Perreault & Hébert 2007, IEEE Trans. Image Process. 16, 2389, with a
/// histogram of the window only). The signs of the box's sums, less what they must reach, tell the
/// percentile. The window follows the percentiles down the image.
///
/// Rows that leave without having come make sums fall with the value, so a sum below the window may
/// exceed the one at its start, by at most a bound that is known for each column of boxes. A box
/// whose percentile may lie outside of the window is counted on its own.
///
/// It needs processors with AVX2; in narrower vectors `RankPercentiles` is faster.
///
/// @return false, and blocks may be left undone, when the percentiles lie too far apart for this
bool NearPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                     std::int32_t first, std::int32_t end, std::int32_t rows, PixelGrid& blocks);

}  // namespace vestrel
