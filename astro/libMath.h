// Rounding, the decimal constants and the one sorting procedure of the program.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <utility>
#include <vector>

namespace vestrel {

// Positions have always been computed with these decimal values. A digit more would move results in
// the last place.
inline constexpr double Pi = 3.141592654;
inline constexpr double TwoPi = 6.283185308;
inline constexpr double DegreesPerRadian = 57.2957795131;
/// Arcseconds per radian where the projection itself is computed.
inline constexpr double ArcsecondsPerRadian = 206264.8062;
/// Arcseconds per radian with which the solve and the catalog set up the projection.
inline constexpr double SolveArcsecondsPerRadian = 206264.81;

// Exact to 64 bits, for everything that has never used the short values above.
inline constexpr double RadiansPerDegree = std::numbers::pi / 180;
inline constexpr double ExactDegreesPerRadian = 180 / std::numbers::pi;
inline constexpr double ExactArcsecondsPerRadian = 3600 * 180 / std::numbers::pi;

/// Rounds to the nearest whole number, halves to even. Relies on the default rounding mode, which
/// the program never changes.
inline double RoundHalfEven(double value) {
    return std::nearbyint(value);
}

/// The nearest whole number as an integer, halves to even. False, and `result` untouched, when it
/// does not fit the integer type or is not a number.
bool RoundToInt16(double value, std::int16_t& result);
bool RoundToInt32(double value, std::int32_t& result);

/// The nearest 32-bit integer, halves to even, clamped to the range of the type; 0 for NaN.
std::int32_t RoundToNearestInt32(double value);

/// Rounds to `decimals` (0..15) decimal places: multiplies by 10^decimals, rounds halves to even
/// and divides. A value that overflows on the way, or is not finite, stays as it is.
double RoundToDecimals(double value, int decimals);

/// The gap of the comb sort's next pass: `gap` / 1.3, rounded down.
inline std::ptrdiff_t NextCombGap(std::ptrdiff_t gap) {
    return static_cast<std::ptrdiff_t>(static_cast<double>(gap) / 1.3);
}

/// The comb sort that orders every list: gap n div 2, shrunk by 1.3, ending with a gap-1 pass that
/// steps back after a swap. Not stable: the order of equal keys is the one that this very
/// procedure gives, and results depend on it.
///
/// `records` is 1-based: elements 1..n are sorted, element 0 never takes part.
/// `outOfOrder(earlier, later)` says that two elements must be swapped.
template <typename List, typename OutOfOrder>
void CombSort(List& records, std::ptrdiff_t n, OutOfOrder outOfOrder) {
    using std::swap;
    std::ptrdiff_t gap = n / 2;
    while (gap != 0) {
        for (std::ptrdiff_t i = gap + 1; i <= n; ++i) {
            std::ptrdiff_t later = i;
            while (outOfOrder(records[later - gap], records[later])) {
                swap(records[later - gap], records[later]);
                // In the last pass a swapped element sinks on to its place.
                if (gap != 1 || later - gap <= 1) break;
                --later;
            }
        }
        gap = NextCombGap(gap);
    }
}

/// One pass of the comb sort over 1-based keys and the places that go with them. At a gap of
/// several elements, as many neighbours do not depend on each other, so the compiler can compare
/// them at once. Choices without branches avoid the mispredictions that a sort makes half of the
/// time.
template <typename Key>
void CombPass(Key* __restrict keys, std::int64_t* __restrict places, std::ptrdiff_t n,
              std::ptrdiff_t gap) {
    constexpr std::ptrdiff_t atOnce = 8;
    const auto exchange = [&](std::ptrdiff_t i) {
        const Key earlier = keys[i - gap];
        const Key later = keys[i];
        const std::int64_t earlierPlace = places[i - gap];
        const std::int64_t laterPlace = places[i];
        const bool swapped = earlier > later;
        keys[i - gap] = swapped ? later : earlier;
        keys[i] = swapped ? earlier : later;
        places[i - gap] = swapped ? laterPlace : earlierPlace;
        places[i] = swapped ? earlierPlace : laterPlace;
    };
    std::ptrdiff_t i = gap + 1;
    for (; gap >= atOnce && i + atOnce - 1 <= n; i += atOnce) {
        Key* __restrict low = keys + i - gap;
        Key* __restrict high = keys + i;
        std::int64_t* __restrict lowPlaces = places + i - gap;
        std::int64_t* __restrict highPlaces = places + i;
        for (std::ptrdiff_t j = 0; j < atOnce; ++j) {
            const Key earlier = low[j];
            const Key later = high[j];
            const std::int64_t earlierPlace = lowPlaces[j];
            const std::int64_t laterPlace = highPlaces[j];
            const bool swapped = earlier > later;
            low[j] = swapped ? later : earlier;
            high[j] = swapped ? earlier : later;
            lowPlaces[j] = swapped ? laterPlace : earlierPlace;
            highPlaces[j] = swapped ? earlierPlace : laterPlace;
        }
    }
    for (; i <= n; ++i) exchange(i);
}

/// The comb sort's outcome without moving large records: element i (1..n) of the result is the
/// place, before the sort, of the record that an ascending sort on `keyOf(place)` puts at i.
template <typename KeyOf>
std::vector<std::int32_t> CombSortedOrder(std::int32_t n, KeyOf keyOf) {
    using Key = decltype(keyOf(1));
    const std::size_t size = static_cast<std::size_t>(n) + 1;
    std::vector<Key> keys(size);
    std::vector<std::int64_t> places(size);
    for (std::int32_t i = 1; i <= n; ++i) {
        keys[static_cast<std::size_t>(i)] = keyOf(i);
        places[static_cast<std::size_t>(i)] = i;
    }
    std::ptrdiff_t gap = n / 2;
    for (; gap > 1; gap = NextCombGap(gap)) CombPass(keys.data(), places.data(), n, gap);
    for (std::ptrdiff_t i = 2; gap == 1 && i <= n; ++i) {
        // The last pass: a swapped element sinks on to its place.
        for (std::ptrdiff_t later = i; later > 1; --later) {
            const auto at = static_cast<std::size_t>(later);
            if (!(keys[at - 1] > keys[at])) break;
            std::swap(keys[at - 1], keys[at]);
            std::swap(places[at - 1], places[at]);
        }
    }
    return {places.begin(), places.end()};
}

/// Reverses elements 1..n of a 1-based list.
template <typename List>
void ReverseList(List& records, std::ptrdiff_t n) {
    using std::swap;
    for (std::ptrdiff_t front = 1, back = n; front < back; ++front, --back) {
        swap(records[front], records[back]);
    }
}

}  // namespace vestrel
