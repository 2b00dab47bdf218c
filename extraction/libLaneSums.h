// Running sums of a sliding box in 64 lanes, which vectors add and compare.
#pragma once

#include <cstdint>

#include "astro/libProcessor.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vestrel {

/// Numbers that the compiler adds and compares in one step.
using Sixteen [[gnu::vector_size(32)]] = std::int16_t;
using ThirtyTwo [[gnu::vector_size(32)]] = std::int8_t;

/// The elements of a comparison that are true, as bits.
VESTREL_KERNEL std::uint32_t TrueElements(const ThirtyTwo& outcome) {
#if defined(__SSE2__)
    const auto* halves = reinterpret_cast<const __m128i*>(&outcome);
    return static_cast<std::uint32_t>(_mm_movemask_epi8(halves[0])) |
           static_cast<std::uint32_t>(_mm_movemask_epi8(halves[1])) << 16;
#else
    std::uint32_t bits = 0;
    for (int i = 0; i < 32; ++i) bits |= outcome[i] != 0 ? 1U << i : 0U;
    return bits;
#endif
}

inline constexpr std::int32_t Lanes = 64;

/// The running sums of a column of samples, one byte for each lane.
struct alignas(32) ColumnSums {
    ThirtyTwo Of[2]{};
};

/// The numbers of the lanes, plus 1: a sample counts in a lane when its own is less than this.
inline ColumnSums LaneLimits() {
    ColumnSums limits;
    for (std::int32_t lane = 0; lane < Lanes; ++lane) {
        limits.Of[lane / 32][lane % 32] = static_cast<std::int8_t>(lane + 1);
    }
    return limits;
}

/// The running sums of a box: the even ones of the first 32 lanes, the odd ones, and those of the
/// other lanes.
struct alignas(32) BoxSums {
    Sixteen Of[4]{};

    VESTREL_KERNEL std::int32_t operator[](std::int32_t lane) const {
        return reinterpret_cast<const std::int16_t*>(
            Of)[(lane & 32) + (lane & 1) * 16 + (lane & 31) / 2];
    }
    /// Moves the box to the right.
    VESTREL_KERNEL void Slide(const ColumnSums& come, const ColumnSums& gone) {
        for (int half = 0; half < 2; ++half) {
            const ThirtyTwo change = come.Of[half] - gone.Of[half];
            // Each number of 16 bits consists of two lanes.
            const auto pairs = reinterpret_cast<Sixteen>(change);
            Of[2 * half] += pairs << 8 >> 8;
            Of[2 * half + 1] += pairs >> 8;
        }
    }
    /// The lanes in which sum and excess together are greater than `limit`, as bits.
    VESTREL_KERNEL std::uint64_t Above(std::int32_t limit, const BoxSums& excess) const {
        std::uint64_t lanes = 0;
        for (int half = 0; half < 2; ++half) {
            const auto least = static_cast<std::int16_t>(limit);
            const Sixteen even = Of[2 * half] + excess.Of[2 * half] > least;
            const Sixteen odd = Of[2 * half + 1] + excess.Of[2 * half + 1] > least;
            constexpr std::int16_t lowByte = 0xFF;
            const auto both = reinterpret_cast<ThirtyTwo>((even & lowByte) | (odd & ~lowByte));
            lanes |= std::uint64_t{TrueElements(both)} << 32 * half;
        }
        return lanes;
    }
};

}  // namespace vestrel
