// Which rows of samples a box holds that slides down an image, and what their drift can hide.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "extraction/libBoxPercentile.h"

namespace vestrel {

/// The rows of samples of a sliding box (see `BoxPercentiles`).
///
/// At the top the box holds the rows 1, 4, 7, …, which never leave it. From then on it takes the
/// rows 2 + 3j from j = `Reach` on, one at each step; after `Reach` steps the rows with j = 0, 1,
/// 2, … leave one by one, and the first `Reach` of them were never in it: they are owed.
struct SlidingRows {
    std::int32_t Height;  ///< of the image, pixels
    std::int32_t Reach;   ///< half the side of the box, in samples

    static std::int32_t FirstRow(std::int32_t i) { return 1 + 3 * i; }
    static std::int32_t Row(std::int32_t j) { return 2 + 3 * j; }
    std::int32_t FirstRows() const { return std::min(Reach, (Height + 1) / 3); }
    std::int32_t OwedRows() const { return std::min(Reach, Height / 3); }

    // At block row k: the rows `Begin`..`End` − 1 are in the box, and `Owed` rows are owed.
    std::int32_t Begin(std::int32_t k) const { return std::max(Reach, k - Reach); }
    std::int32_t End(std::int32_t k) const {
        return std::max(Begin(k), std::min(k + Reach, Height / 3));
    }
    std::int32_t Owed(std::int32_t k) const { return std::clamp(k - Reach, 0, Reach); }
    /// Rows added minus rows removed.
    std::int32_t Count(std::int32_t k) const {
        return FirstRows() + (End(k) - Reach) - std::max(k - Reach, 0);
    }
};

/// A bound for each of the boxes of the block columns `first`..`end` − 1: by how much the running
/// sum of its samples at some value can exceed the one at a greater value, once all owed rows have
/// left.
std::vector<std::int32_t> LargestFalls(const BoxSamples& samples, const SlidingRows& rows,
                                       std::int32_t first, std::int32_t end);

/// Finds the percentile of a single box, by counting its samples.
class SingleBox {
 public:
    SingleBox(const BoxSamples& samples, const SlidingRows& rows);

    /// The first value at which the running sum of the box reaches `target`: `High` when it does
    /// not, `Low` − 1 when `target` is 0 or less.
    /// @param k row of blocks
    std::int32_t Find(std::int32_t column, std::int32_t k, std::int32_t target);

 private:
    static constexpr std::int32_t coarseShift = 9;

    void TakeRow(std::int32_t y, std::int32_t first, std::int32_t last,
                 std::vector<std::int32_t>& taken);

    const BoxSamples& samples_;
    SlidingRows rows_;
    std::vector<std::int32_t> added_;  ///< values above `Low`
    std::vector<std::int32_t> owed_;
    std::vector<std::int32_t> addedIn_;  ///< of each coarse range of values
    std::vector<std::int32_t> owedIn_;
};

/// Whether boxes side by side, and one below the other, have percentiles that lie near each other:
/// a guess from nine boxes among the block columns `first`..`end` − 1, which are counted one by
/// one.
/// @param rows of blocks
bool BoxesAreAlike(const BoxSamples& samples, const SlidingRows& sliding, double percentile,
                   std::int32_t first, std::int32_t end, std::int32_t rows);

}  // namespace vestrel
