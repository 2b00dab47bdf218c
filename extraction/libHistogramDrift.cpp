#include "extraction/libHistogramDrift.h"

#include <algorithm>

namespace vestrel {
namespace {

std::size_t FirstLeafOf(std::int32_t node) {
    return static_cast<std::size_t>(node) * NodeChildren;
}

}  // namespace

HistogramDrift::HistogramDrift(const TreeShape& shape)
    : shape_(shape),
      counts_(static_cast<std::size_t>(shape.LeafNodes) * NodeChildren),
      owed_(counts_.size()),
      countsOfNode_(static_cast<std::size_t>(shape.LeafNodes)),
      owedOfNode_(countsOfNode_.size()) {}

void HistogramDrift::SetExcesses(HistogramNode* excess) const {
    for (std::int32_t middle = shape_.MiddleNodes - 1; middle >= 0; --middle) {
        std::int32_t most = 0;
        std::int32_t rest = 0;  // the sum of what follows in the middle node is −rest
        const std::int32_t last = std::min((middle + 1) * NodeChildren, shape_.LeafNodes);
        for (std::int32_t node = last - 1; node >= middle * NodeChildren; --node) {
            // Sums fall only where something was removed without having been added.
            const bool falls = owedOfNode_[static_cast<std::size_t>(node)] != 0;
            const std::int32_t mostInNode = falls ? MostInNode(node) : 0;
            excess[shape_.MiddleAt(middle)].Sums[node % NodeChildren] =
                static_cast<std::int16_t>(mostInNode);
            most = std::max(most, rest + mostInNode);
            rest -= countsOfNode_[static_cast<std::size_t>(node)];
            if (shape_.Shift == 0) continue;
            for (std::int32_t i = 0; i < NodeChildren; ++i) {
                excess[shape_.LeafNodeAt(node)].Sums[i] = static_cast<std::int16_t>(
                    owed_[FirstLeafOf(node) + static_cast<std::size_t>(i)]);
            }
        }
        excess[0].Sums[middle] = static_cast<std::int16_t>(most);
    }
}

std::int32_t HistogramDrift::MostInNode(std::int32_t node) const {
    std::int32_t most = 0;
    std::int32_t rest = 0;
    for (std::int32_t i = NodeChildren - 1; i >= 0; --i) {
        const auto leaf = FirstLeafOf(node) + static_cast<std::size_t>(i);
        most = std::max(most, rest + (shape_.Shift > 0 ? owed_[leaf] : 0));
        rest -= counts_[leaf];
    }
    return most;
}

}  // namespace vestrel
