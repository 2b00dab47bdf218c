#include "astro/libIntegerOrder.h"

#include <cstddef>
#include <numeric>
#include <utility>

#include "astro/libMath.h"
#include "astro/libProcessor.h"

namespace vestrel {

namespace {

using Eight [[gnu::vector_size(32)]] = std::int32_t;

/// One pass of the sort over keys and the places that go with them. As many neighbours as the gap
/// do not depend on each other.
VESTREL_KERNEL void Pass(std::int32_t* keys, std::int32_t* places, std::ptrdiff_t n,
                         std::ptrdiff_t gap) {
    constexpr std::ptrdiff_t atOnce = 8;
    std::ptrdiff_t i = 1;
    for (; gap >= atOnce && i + gap + atOnce - 1 <= n; i += atOnce) {
        Eight earlier;
        Eight later;
        __builtin_memcpy(&earlier, keys + i, sizeof earlier);
        __builtin_memcpy(&later, keys + i + gap, sizeof later);
        const Eight swapped = earlier > later;
        const Eight less = swapped ? later : earlier;
        const Eight greater = swapped ? earlier : later;
        __builtin_memcpy(keys + i, &less, sizeof less);
        __builtin_memcpy(keys + i + gap, &greater, sizeof greater);
        Eight place;
        Eight laterPlace;
        __builtin_memcpy(&place, places + i, sizeof place);
        __builtin_memcpy(&laterPlace, places + i + gap, sizeof laterPlace);
        const Eight first = swapped ? laterPlace : place;
        const Eight second = swapped ? place : laterPlace;
        __builtin_memcpy(places + i, &first, sizeof first);
        __builtin_memcpy(places + i + gap, &second, sizeof second);
    }
    for (; i + gap <= n; ++i) {
        const bool swapped = keys[i] > keys[i + gap];
        const std::int32_t key = keys[i];
        const std::int32_t place = places[i];
        keys[i] = swapped ? keys[i + gap] : key;
        places[i] = swapped ? places[i + gap] : place;
        keys[i + gap] = swapped ? key : keys[i + gap];
        places[i + gap] = swapped ? place : places[i + gap];
    }
}
VESTREL_FOR_AVX2 void PassForAvx2(std::int32_t* keys, std::int32_t* places, std::ptrdiff_t n,
                                  std::ptrdiff_t gap) {
    Pass(keys, places, n, gap);
}
void PassPlainly(std::int32_t* keys, std::int32_t* places, std::ptrdiff_t n, std::ptrdiff_t gap) {
    Pass(keys, places, n, gap);
}

}  // namespace

std::vector<std::int32_t> CombSortedIntegers(std::vector<std::int32_t> keys) {
    std::vector<std::int32_t> places(keys.size());
    std::iota(places.begin(), places.end(), 0);
    const auto n = static_cast<std::ptrdiff_t>(keys.size()) - 1;
    std::ptrdiff_t gap = n / 2;
    const auto pass = HasAvx2() ? PassForAvx2 : PassPlainly;
    for (; gap > 1; gap = NextCombGap(gap)) pass(keys.data(), places.data(), n, gap);
    for (std::ptrdiff_t i = 2; gap == 1 && i <= n; ++i) {
        // The last pass: a swapped element sinks on to its place.
        for (auto at = static_cast<std::size_t>(i); at > 1 && keys[at - 1] > keys[at]; --at) {
            std::swap(keys[at - 1], keys[at]);
            std::swap(places[at - 1], places[at]);
        }
    }
    return places;
}

}  // namespace vestrel
