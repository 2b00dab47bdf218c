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
inline constexpr std::int32_t LaneParts = 2;  ///< vectors of bytes that hold them

/// The running sums of a column of samples, at most 127 in size: one byte for each lane.
struct alignas(32) ColumnSums {
    ThirtyTwo Of[LaneParts]{};
};

/// Which of 32 lanes a byte of a column's sums holds. Widened to 16 bits, even bytes and odd bytes
/// become a vector each; when these are packed again, first come eight even ones, then eight odd.
constexpr std::int32_t LaneOfByte(std::int32_t byte) {
    return byte / 16 * 16 + byte % 2 * 8 + byte % 16 / 2;
}

/// The numbers of the lanes, plus 1: a sample counts in a lane when its own is less than this.
inline ColumnSums LaneLimits() {
    ColumnSums limits;
    for (std::int32_t byte = 0; byte < Lanes; ++byte) {
        limits.Of[byte / 32][byte % 32] =
            static_cast<std::int8_t>(byte / 32 * 32 + LaneOfByte(byte % 32) + 1);
    }
    return limits;
}

/// Adds the samples of a row to the sums of their columns, or removes them.
/// @param lanes the first lane that counts each sample
template <int Sign>
VESTREL_KERNEL void CountInLanes(const std::int8_t* lanes, std::int32_t count,
                                 const ColumnSums& limits, ColumnSums* sums) {
    for (std::int32_t i = 0; i < count; ++i) {
        for (int part = 0; part < LaneParts; ++part) {
            // A comparison that holds is −1.
            const ThirtyTwo counted = limits.Of[part] > lanes[i];
            if constexpr (Sign > 0) {
                sums[i].Of[part] -= counted;
            } else {
                sums[i].Of[part] += counted;
            }
        }
    }
}
/// Removes a sample from the sums of its column, and adds another one.
VESTREL_KERNEL void ExchangeInLanes(ColumnSums& sums, const ColumnSums& limits, std::int8_t out,
                                    std::int8_t in) {
    for (int part = 0; part < LaneParts; ++part) {
        sums.Of[part] += (limits.Of[part] > out) - (limits.Of[part] > in);
    }
}

/// The running sums of a box: of each part's even bytes, then of its odd ones.
struct alignas(32) BoxSums {
    Sixteen Of[2 * LaneParts]{};

    VESTREL_KERNEL std::int32_t operator[](std::int32_t lane) const {
        return reinterpret_cast<const std::int16_t*>(
            Of)[lane / 32 * 32 + lane % 16 / 8 * 16 + lane % 32 / 16 * 8 + lane % 8];
    }
    /// Moves the box to the right.
    VESTREL_KERNEL void Slide(const ColumnSums& come, const ColumnSums& gone) {
        for (int part = 0; part < LaneParts; ++part) {
            const ThirtyTwo change = come.Of[part] - gone.Of[part];
            // Each number of 16 bits consists of two lanes.
            const auto pairs = reinterpret_cast<Sixteen>(change);
            Of[2 * part] += pairs << 8 >> 8;
            Of[2 * part + 1] += pairs >> 8;
        }
    }
    /// The lanes in which sum and excess together are greater than `limit`, as bits.
    VESTREL_KERNEL std::uint64_t Above(std::int32_t limit, const BoxSums& excess) const {
        std::uint64_t lanes = 0;
        for (int part = 0; part < LaneParts; ++part) {
            const auto least = static_cast<std::int16_t>(limit);
            const Sixteen even = Of[2 * part] + excess.Of[2 * part] > least;
            const Sixteen odd = Of[2 * part + 1] + excess.Of[2 * part + 1] > least;
            lanes |= std::uint64_t{TrueLanes(even, odd)} << 32 * part;
        }
        return lanes;
    }

 private:
    /// The lanes of a part in which a comparison is true, as bits.
    VESTREL_KERNEL static std::uint32_t TrueLanes(const Sixteen& even, const Sixteen& odd) {
#if defined(__SSE2__)
        const auto* evenHalves = reinterpret_cast<const __m128i*>(&even);
        const auto* oddHalves = reinterpret_cast<const __m128i*>(&odd);
        const __m128i low = _mm_packs_epi16(evenHalves[0], oddHalves[0]);
        const __m128i high = _mm_packs_epi16(evenHalves[1], oddHalves[1]);
        return static_cast<std::uint32_t>(_mm_movemask_epi8(low)) |
               static_cast<std::uint32_t>(_mm_movemask_epi8(high)) << 16;
#else
        std::uint32_t lanes = 0;
        for (int i = 0; i < 16; ++i) {
            lanes |= even[i] != 0 ? 1U << LaneOfByte(2 * i) : 0U;
            lanes |= odd[i] != 0 ? 1U << LaneOfByte(2 * i + 1) : 0U;
        }
        return lanes;
#endif
    }
};

}  // namespace vestrel
