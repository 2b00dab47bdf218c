// What a sliding box keeps of rows that never leave it, less what leaves without having come.
#pragma once

#include <cstdint>
#include <vector>

#include "extraction/libHistogramTree.h"

namespace vestrel {

/// The part of a box's histogram whose counters may be negative, and what that does to the sums.
class HistogramDrift {
 public:
    explicit HistogramDrift(const TreeShape& shape);

    /// Counts (`sign` 1) or takes back (−1) a sample that never leaves.
    void AddFirst(std::uint16_t leaf, std::int32_t sign) {
        counts_[leaf] += sign;
        countsOfNode_[leaf / NodeChildren] += sign;
    }
    /// As above for one that leaves without having come.
    void AddOwed(std::uint16_t leaf, std::int32_t sign) {
        AddFirst(leaf, -sign);
        owed_[leaf] += sign;
        owedOfNode_[leaf / NodeChildren] += sign;
    }

    /// Sets for each child of each node how far a running sum inside it can lie above the one at
    /// its end, whatever else is in the box. Leaves only have that where they stand for several
    /// values; `excess` need not have room for them otherwise.
    void SetExcesses(HistogramNode* excess) const;

 private:
    std::int32_t MostInNode(std::int32_t node) const;

    TreeShape shape_;
    std::vector<std::int32_t> counts_;        ///< of each leaf
    std::vector<std::int32_t> owed_;          ///< those that leave alone
    std::vector<std::int32_t> countsOfNode_;  ///< of each node of leaves
    std::vector<std::int32_t> owedOfNode_;
};

}  // namespace vestrel
