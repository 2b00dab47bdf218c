#include "astro/libMath.h"

#include <limits>

namespace vestrel {

namespace {

template <typename Integer>
bool RoundToInteger(double value, Integer& result) {
    const double rounded = RoundHalfEven(value);
    // Written so that a value that is not a number fails too.
    if (!(rounded >= static_cast<double>(std::numeric_limits<Integer>::min()) &&
          rounded <= static_cast<double>(std::numeric_limits<Integer>::max()))) {
        return false;
    }
    result = static_cast<Integer>(rounded);
    return true;
}

}  // namespace

bool RoundToInt16(double value, std::int16_t& result) {
    return RoundToInteger(value, result);
}
bool RoundToInt32(double value, std::int32_t& result) {
    return RoundToInteger(value, result);
}

std::int32_t RoundToNearestInt32(double value) {
    std::int32_t result = 0;
    if (RoundToInteger(value, result)) return result;
    if (std::isnan(value)) return 0;
    return value < 0 ? std::numeric_limits<std::int32_t>::min()
                     : std::numeric_limits<std::int32_t>::max();
}

double RoundToDecimals(double value, int decimals) {
    // Powers of ten up to 10^22 are exact, so the table's size is the only limit.
    static constexpr double powers[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                        1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    const double power = powers[decimals];
    const double scaled = value * power;
    return std::isfinite(scaled) ? RoundHalfEven(scaled) / power : value;
}

}  // namespace vestrel
