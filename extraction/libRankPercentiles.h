// Percentiles of sliding boxes whose values may lie anywhere.
#pragma once

#include <cstdint>

#include "extraction/libBoxPercentile.h"

namespace vestrel {

/// The same numbers as `BoxPercentiles`, at a cost that depends little on the values: neither on
/// their range nor on how far apart the percentiles lie.
///
/// The rows of blocks are handled in bands. All samples that the boxes of a band meet on their way
/// down are sorted once, in two passes by counting, so that each has a rank. 64 lanes divide the
/// ranks: 62 of equal size make a window about the percentiles of the row before. Each column of
/// samples keeps its running sums up to each lane; they slide down and right as those of
/// `NearPercentiles` do (Perreault & Hébert 2007, IEEE Trans. Image Process. 16, 2389, with ranks
/// in place of values), and tell the lane in which a box reaches its percentile. For each rank, a
/// mark says in which column its sample lies, as long as the boxes hold it. 32 marks at once are
/// compared with the columns of the box, and their running sums find the percentile in the lane. A
/// percentile outside of the window only takes longer.
///
/// Rows that leave without having come count −1, so sums may fall with the rank, and a lane's last
/// sum need not be its largest one. A box is therefore searched from the first lane on whose sum,
/// and the samples in it that are owed, make up the target. Among equal values those come first, so
/// that a sum which is reached in between is still there at the last of them.
///
/// @param end at most `BoxPercentileColumns` after `first`
void RankPercentiles(const BoxSamples& samples, std::int32_t halfSize, double percentile,
                     std::int32_t first, std::int32_t end, std::int32_t rows, PixelGrid& blocks);

}  // namespace vestrel
