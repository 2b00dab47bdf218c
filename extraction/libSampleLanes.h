// Which of some neighbouring values each sample of a row has.
#pragma once

#include <algorithm>
#include <cstdint>

#include "astro/libProcessor.h"
#include "image/libPixelGrid.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vestrel {

// Vectors of the compiler, loaded and stored by `__builtin_memcpy`.
using LaneNumbers [[gnu::vector_size(32)]] = std::int32_t;
using LaneWords [[gnu::vector_size(16)]] = std::uint16_t;

/// Eight cells.
template <typename Cell>
struct EightCells;
template <>
struct EightCells<std::int32_t> {
    using Vector = LaneNumbers;
};
template <>
struct EightCells<std::uint16_t> {
    using Vector = LaneWords;
};

/// Stores eight numbers that fit bytes.
VESTREL_KERNEL void StoreAsBytes(const LaneNumbers& numbers, std::int8_t* out) {
#if defined(__SSE2__)
    const auto* halves = reinterpret_cast<const __m128i*>(&numbers);
    const __m128i words = _mm_packs_epi32(halves[0], halves[1]);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packs_epi16(words, words));
#else
    for (int i = 0; i < 8; ++i) out[i] = static_cast<std::int8_t>(numbers[i]);
#endif
}
VESTREL_KERNEL void StoreAsBytes(const LaneWords& words, std::int8_t* out) {
#if defined(__SSE2__)
    const auto numbers = reinterpret_cast<__m128i>(words);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(numbers, numbers));
#else
    for (int i = 0; i < 8; ++i) out[i] = static_cast<std::int8_t>(words[i]);
#endif
}

/// Finds the lanes of `count` samples, every third pixel of a row: their values clamped to
/// `least`..`most`, which is all within `lanes` of `base`, less `base`.
template <typename Cell>
VESTREL_KERNEL void TakeLanes(PixelRow<Cell> pixels, std::int32_t base, std::int32_t least,
                              std::int32_t most, std::int32_t count, std::int8_t* out) {
    using Vector = typename EightCells<Cell>::Vector;
    using Row = PixelRow<Cell>;
    std::int32_t i = 0;
    if (least - pixels.Least <= Row::MostRank && most - pixels.Least >= Row::LeastRank) {
        const auto low = static_cast<Cell>(std::max(least - pixels.Least, Row::LeastRank));
        const auto high = static_cast<Cell>(std::min(most - pixels.Least, Row::MostRank));
        const auto toRank = static_cast<Cell>(pixels.Least);
        const auto toLane = static_cast<Cell>(base - pixels.Least);
        // Eight samples lie in 24 pixels: of these every third is kept. The last eight overlap
        // those before. Pixels beyond the last sample may lie outside of the row.
        const std::int32_t lastEight = count - 9;
        for (; lastEight >= 0 && i < count - 1; i += 8) {
            i = std::min(i, lastEight);
            const Cell* cells = pixels.Cells + 3 * i;
            Vector first;
            Vector second;
            Vector third;
            __builtin_memcpy(&first, cells, sizeof first);
            __builtin_memcpy(&second, cells + 8, sizeof second);
            __builtin_memcpy(&third, cells + 16, sizeof third);
            const Vector both = __builtin_shufflevector(first, second, 0, 9, 2, 3, 12, 5, 6, 15);
            const Vector all = __builtin_shufflevector(both, third, 0, 1, 10, 3, 4, 13, 6, 7);
            const Vector cell = __builtin_shufflevector(all, all, 0, 3, 6, 1, 4, 7, 2, 5);
            const Vector rank = cell - toRank;
            const Vector notBelow = rank < low ? Vector{} + low : rank;
            StoreAsBytes((notBelow > high ? Vector{} + high : notBelow) - toLane, out + i);
        }
    }
    for (; i < count; ++i) {
        out[i] = static_cast<std::int8_t>(std::clamp(pixels[3 * i], least, most) - base);
    }
}

}  // namespace vestrel
