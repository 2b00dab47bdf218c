// Matches two lists of star positions and fits the plate that takes the first onto the second.
#pragma once

#include <cstdint>

#include "astro/libParallel.h"
#include "astro/libPlateStar.h"
#include "matching/libPlateFit.h"
#include "matching/libTriangleGrid.h"
#include "matching/libTriangles.h"

namespace vestrel {

/// What the matcher allows; `AlignSettingsOf` takes it from the solve parameters.
struct AlignSettings {
    double MatchTolerance = 0;     ///< triangles farther apart than this, in the plane of side
                                   ///< ratios, do not vote
    double MatchDivisor = 0;       ///< the larger, the fewer votes a pair needs
    double MaxGeometricError = 0;  ///< limit on |(|Stretch| − 1)| and on |Skew|
    std::int16_t MaxStars = 0;     ///< stars of each list that take part
};

/// The triangles of a list that is matched many times, kept from one match to the next.
struct KeptTriangles {
    std::int32_t StarCount = -1;  ///< of how many stars; −1 when nothing is kept
    TriangleGrid Grid;
    StarTriangleList Sorted;  ///< the same triangles; empty until they are needed
    TriangleGrid OfOther;     ///< those of the other list; only their memory is used again
};

/// How far a match got: counts after each step.
struct AlignReport {
    std::int32_t Triangles1 = 0;
    std::int32_t Triangles2 = 0;
    std::int32_t Voted = 0;     ///< triangles that voted
    std::int32_t Selected = 0;  ///< pairs with enough votes
    std::int32_t Kept = 0;      ///< pairs that survived the fit
};

/// The outcome of a match. When `Matched` is false, all fields hold what was computed last.
struct Alignment {
    bool Matched = false;        ///< at least 5 pairs fit
    StarMatchList Matches;       ///< pairs with `InUse` false were dropped
    std::int32_t UsedCount = 0;  ///< pairs in use
    PlateConstants Constants;    ///< list 1 to list 2
    FitGeometry Geometry;
    double FitError = 0;      ///< root mean square residual, list-2 units
    std::int32_t Count1 = 0;  ///< stars in list 1; at most `MaxStars` once the first fit succeeded
    std::int32_t Count2 = 0;
    AlignReport Report;
};

/// Matches list 1 (catalog stars on the plane) with list 2 (stars of the image).
///
/// Triangle votes give the first pairs. The fit to them is freed from outliers, extended by the
/// pairs that it predicts, and freed from outliers again. Only the pair with the largest residual
/// is dropped at a time, even when the geometry was what failed.
///
/// @param maxError largest fit error allowed, list-2 units (pixels) times the fitted scale (pixels
///   per arcsecond): a fit passes when its error is at most maxError / Scale
/// @param triangles2 triangles of list 2 from an earlier match of the same list
Alignment AlignImages(const PlateStarList& list1, const PlateStarList& list2, double maxError,
                      const AlignSettings& settings, KeptTriangles& triangles2,
                      const Progress& progress = {});

}  // namespace vestrel
