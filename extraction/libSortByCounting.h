// Sorts the samples of a strip by their values.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "astro/libProcessor.h"

namespace vestrel {

/// A sample that is sorted: its value, above the lowest one, then its number in these last bits.
inline constexpr int SampleNumberBits = 15;
inline constexpr std::int32_t MostSortedSamples = 1 << SampleNumberBits;
inline constexpr std::uint32_t SampleNumberMask = MostSortedSamples - 1;

/// Sorts samples by two digits of their values, the last one first, by counting the digits.
class SortByCounting {
 public:
    /// Equal values keep their order.
    /// @param bits of the values, at most 17
    VESTREL_KERNEL void Sort(std::vector<std::uint32_t>& samples, int bits) {
        other_.resize(samples.size());
        const int lower = (bits + 1) / 2;
        for (const auto& [shift, digitBits] : {std::pair{0, lower}, {lower, bits - lower}}) {
            SortByDigit(samples.data(), samples.size(), SampleNumberBits + shift, digitBits);
            samples.swap(other_);
        }
    }

 private:
    static constexpr int mostDigitBits = 9;

    VESTREL_KERNEL void SortByDigit(const std::uint32_t* samples, std::size_t count, int shift,
                                    int digitBits) {
        const std::uint32_t mask = (1U << digitBits) - 1;
        std::array<std::uint32_t, 1U << mostDigitBits> places{};
        for (std::size_t i = 0; i < count; ++i) ++places[samples[i] >> shift & mask];
        std::uint32_t next = 0;
        for (std::uint32_t digit = 0; digit <= mask; ++digit) {
            next += std::exchange(places[digit], next);
        }
        std::uint32_t* sorted = other_.data();
        for (std::size_t i = 0; i < count; ++i) {
            sorted[places[samples[i] >> shift & mask]++] = samples[i];
        }
    }

    std::vector<std::uint32_t> other_;
};

}  // namespace vestrel
