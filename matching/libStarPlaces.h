// The place of a star on its plane, in the 64-bit floats that all arithmetic uses.
#pragma once

#include "astro/libPlateStar.h"

namespace vestrel {

inline double XOf(const PlateStar& star) {
    return static_cast<double>(star.X);
}
inline double YOf(const PlateStar& star) {
    return static_cast<double>(star.Y);
}
/// Of two stars on their plane, plane units squared.
inline double SquaredDistance(const PlateStar& a, const PlateStar& b) {
    const double dx = XOf(a) - XOf(b);
    const double dy = YOf(a) - YOf(b);
    return dx * dx + dy * dy;
}

}  // namespace vestrel
