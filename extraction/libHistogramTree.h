// Histograms as trees of three levels whose nodes hold running sums.
#pragma once

#include <cstdint>

#include "astro/libProcessor.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vestrel {

inline constexpr std::int32_t NodeChildren = 16;
inline constexpr std::int32_t MostLeaves = NodeChildren * NodeChildren * NodeChildren;
/// Enough for histograms of 2^17 values.
inline constexpr std::int32_t MostValuesOfLeaf = 2 * NodeChildren;

/// 16 numbers that the compiler adds and compares in one step.
using Sixteen [[gnu::vector_size(32)]] = std::int16_t;

/// A node of a histogram: the running sums of its children.
struct alignas(32) HistogramNode {
    Sixteen Sums;

    /// Whether a child adds nothing to the sums.
    bool IsEmpty(std::int32_t child) const {
        const auto* sums = reinterpret_cast<const std::int16_t*>(&Sums);
        return sums[child] == (child > 0 ? sums[child - 1] : 0);
    }
};

/// The lanes of a comparison that are true, as bits.
VESTREL_KERNEL unsigned TrueLanes(const Sixteen& outcome) {
#if defined(__SSE2__)
    const auto* halves = reinterpret_cast<const __m128i*>(&outcome);
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(halves[0], halves[1])));
#else
    unsigned bits = 0;
    for (int i = 0; i < NodeChildren; ++i) bits |= outcome[i] != 0 ? 1U << i : 0U;
    return bits;
#endif
}

/// For each child the running sums that one sample in it adds.
struct SampleSums {
    HistogramNode OfChild[NodeChildren];
    SampleSums() : OfChild() {
        for (int child = 0; child < NodeChildren; ++child) {
            for (int i = 0; i < NodeChildren; ++i) {
                OfChild[child].Sums[i] = static_cast<std::int16_t>(i >= child ? 1 : 0);
            }
        }
    }
};

/// The memory layout of a histogram for `values` values (at most 2^17): the root, the nodes below
/// it, then their children.
struct TreeShape {
    std::int32_t Shift = 0;  ///< a leaf stands for 2^Shift values
    std::int32_t Leaves = 0;
    std::int32_t LeafNodes = 0;
    std::int32_t MiddleNodes = 0;

    explicit TreeShape(std::int32_t values) {
        while (((values - 1) >> Shift) >= MostLeaves) ++Shift;
        Leaves = ((values - 1) >> Shift) + 1;
        LeafNodes = (Leaves + NodeChildren - 1) / NodeChildren;
        MiddleNodes = (LeafNodes + NodeChildren - 1) / NodeChildren;
    }
    std::int32_t MiddleAt(std::int32_t node) const { return 1 + node; }
    std::int32_t LeafNodeAt(std::int32_t node) const { return 1 + MiddleNodes + node; }
    std::int32_t Nodes() const { return 1 + MiddleNodes + LeafNodes; }
};

}  // namespace vestrel
