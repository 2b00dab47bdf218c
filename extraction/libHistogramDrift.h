// The lasting error of a sliding box: rows that are never removed, minus rows that are removed
// without having been added.
#pragma once

#include <cstdint>
#include <vector>

#include "extraction/libHistogramTree.h"

namespace vestrel {

/// The part of a box's histogram whose counters may be negative, and its effect on running sums.
class HistogramDrift {
 public:
    explicit HistogramDrift(const TreeShape& shape);

    /// Adds (`sign` 1) or takes back (−1) a sample that is never removed.
    void AddFirst(std::uint16_t leaf, std::int32_t sign) {
        counts_[leaf] += sign;
        countsOfNode_[leaf / NodeChildren] += sign;
    }
    /// The same for a sample that is removed without having been added.
    void AddOwed(std::uint16_t leaf, std::int32_t sign) {
        AddFirst(leaf, -sign);
        owed_[leaf] += sign;
        owedOfNode_[leaf / NodeChildren] += sign;
    }

    /// Sets for each child of each node by how much a running sum inside it can exceed the one at
    /// its end, whatever else is in the box. Leaves have an excess only when they stand for several
    /// values; otherwise `excess` needs no room for them.
    void SetExcesses(HistogramNode* excess) const;

 private:
    std::int32_t MostInNode(std::int32_t node) const;

    TreeShape shape_;
    std::vector<std::int32_t> counts_;        ///< of each leaf
    std::vector<std::int32_t> owed_;          ///< samples removed without having been added
    std::vector<std::int32_t> countsOfNode_;  ///< of each node of leaves
    std::vector<std::int32_t> owedOfNode_;
};

}  // namespace vestrel
