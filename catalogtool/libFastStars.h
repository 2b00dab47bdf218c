// Proper motion: moves stars from the epoch of their source to that of the catalog.
#pragma once

#include <optional>

#include "catalog/libCellGrid.h"

namespace vestrel {

/// Milliarcseconds per year; `Ra` includes the factor cos(declination), as in all surveys since
/// Hipparcos.
struct ProperMotion {
    double Ra = 0;
    double Dec = 0;
};

/// Faster than any star (milliarcseconds per year, along either axis); some surveys mark missing
/// motions by larger numbers.
inline constexpr double LargestMotion = 15000;

/// The star moved along a great circle by a number of years, which may be negative.
SkyStar MovedStar(const SkyStar& star, const ProperMotion& motion, double years);

/// The position at an epoch (years) of one of the 203 stars to magnitude 11.6 that are known to
/// move by more than 0.9" per year, for sources without proper motions. Such sources list these
/// stars at their positions of 2000 or, some of the brightest and of the doubles, of 1991. Nothing
/// unless the star lies within 3" and a magnitude of one of these positions.
std::optional<SkyStar> FastStarAt(const SkyStar& star, double epoch);

}  // namespace vestrel
