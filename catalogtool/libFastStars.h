// Proper motion: where stars are at the epoch of the catalog, not at that of their source.
#pragma once

#include <optional>

#include "catalog/libCellGrid.h"

namespace vestrel {

/// Milliarcseconds a year; `Ra` along the parallel, that is times the cosine of the declination, as
/// all surveys since Hipparcos give it.
struct ProperMotion {
    double Ra = 0;
    double Dec = 0;
};

/// A star after a number of years (before, when negative), along its great circle.
SkyStar MovedStar(const SkyStar& star, const ProperMotion& motion, double years);

/// Where one of the 76 brightest stars that move by more than 1" a year is at an epoch (years).
/// For sources without motions, which have these stars where they were in 2000 or, the very
/// brightest, in 1991. Nothing when the star is none of them: that is within 3" and a magnitude of
/// either place.
std::optional<SkyStar> FastStarAt(const SkyStar& star, double epoch);

}  // namespace vestrel
