// Finds the rank at which a box reaches a sum, among marks that tell where samples lie.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "extraction/libLaneSums.h"

namespace vestrel {

/// How many ranks are searched at once. The mark of a rank is the column of its sample, from 0 to
/// 126, plus `OwedMark` when the sample counts −1.
inline constexpr std::int32_t MarksAtOnce = 32;
inline constexpr std::uint8_t OwedMark = 128;
inline constexpr std::uint8_t NoMark = 127;  ///< no box holds the sample

/// Replaces 32 numbers by their running sums.
VESTREL_KERNEL void SumUpMarks(ThirtyTwo& x) {
    using Eights [[gnu::vector_size(32)]] = std::uint64_t;
    constexpr ThirtyTwo zeros{};
    for (const int bits : {8, 16, 32}) {
        x += reinterpret_cast<ThirtyTwo>(reinterpret_cast<const Eights&>(x) << bits);
    }
    x += __builtin_shufflevector(x, zeros, 32, 32, 32, 32, 32, 32, 32, 32, 7, 7, 7, 7, 7, 7, 7, 7,
                                 32, 32, 32, 32, 32, 32, 32, 32, 23, 23, 23, 23, 23, 23, 23, 23);
    x += __builtin_shufflevector(x, zeros, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32,
                                 32, 32, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15,
                                 15);
}

/// The first of 32 marks at which the running sum of a box reaches `target`; `MarksAtOnce` when
/// none does. The sum of all is taken off `target`.
/// @param column, span the box holds the columns `column`..`column` + `span`
VESTREL_KERNEL std::int32_t FindAmongMarks(const std::uint8_t* marks, std::int32_t column,
                                           std::int32_t span, std::int32_t& target) {
    using Marks [[gnu::vector_size(32)]] = std::uint8_t;
    Marks some;
    __builtin_memcpy(&some, marks, sizeof some);
    some -= static_cast<std::uint8_t>(column);
    // A comparison that holds is −1.
    const ThirtyTwo added = some <= static_cast<std::uint8_t>(span);
    const ThirtyTwo owed = some - OwedMark <= static_cast<std::uint8_t>(span);
    ThirtyTwo sums = owed - added;
    SumUpMarks(sums);
    const auto limit = static_cast<std::int8_t>(std::min(target - 1, MarksAtOnce));
    const std::uint32_t reached = TrueElements(sums > limit);
    target -= sums[MarksAtOnce - 1];
    // Without a branch, as it would often be mispredicted.
    return __builtin_ctzll(std::uint64_t{reached} | std::uint64_t{1} << MarksAtOnce);
}

}  // namespace vestrel
