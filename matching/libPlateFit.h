// The linear plate model with six plate constants: least-squares fit, geometry, and its use in both
// directions.
#pragma once

#include <cstdint>

#include "astro/libPlateStar.h"

namespace vestrel {

/// One pairing of a star of list 1 with a star of list 2.
struct StarMatch {
    std::int16_t Star1 = 0;
    std::int16_t Star2 = 0;
    std::int16_t Votes = 0;  ///< triangle votes; 0 for a pair added by prediction
    bool InUse = false;      ///< a pair not in use takes no part in fits and statistics
};
using StarMatchList = NumberedList<StarMatch>;

/// x2 = a·x1 + b·y1 + c, y2 = d·x1 + e·y1 + f. In a solve (x1, y1) are arcseconds on the tangent
/// plane and (x2, y2) pixels. All six are NaN when the fit was singular.
struct PlateConstants {
    double a = 0;
    double b = 0;
    double c = 0;
    double d = 0;
    double e = 0;
    double f = 0;
};

/// What the constants say about the plate. With `a` to `f` of a pure rotation by θ and scale S:
/// Scale = S, Stretch = 1, Skew = 0, Angle = θ. A mirrored plate has a negative `Stretch`.
struct FitGeometry {
    double Scale = 0;    ///< list-2 units per list-1 unit: pixels per arcsecond
    double Stretch = 0;  ///< ratio of the two axes' scales
    double Skew = 0;     ///< departure of the axes from a right angle, radians when small
    double Angle = 0;    ///< atan2(−b, a), radians, −π..π
    double OffsetX = 0;  ///< c
    double OffsetY = 0;  ///< f
};

/// Fits the plate constants to the pairs in use by unweighted linear least squares.
///
/// @param residuals receives for every pair, in use or not, the distance (list-2 units) of the
///                   list-2 star from the fitted place of the list-1 star
/// @return the root mean square of the residuals of the pairs in use (list-2 units); NaN, like all
///         constants, when the stars of list 1 lie on a line or are fewer than 3
double FitPlate(const PlateStarList& list1, const PlateStarList& list2,
                const StarMatchList& matches, PlateConstants& constants,
                NumberedList<double>& residuals);

FitGeometry PlateGeometry(const PlateConstants& constants);

/// Applies the model: from (x1, y1) to (x2, y2).
void ApplyPlateFit(const PlateConstants& constants, double x1, double y1, double& x2, double& y2);

/// Inverts the model; both results are 0 when it cannot be inverted.
void InvertPlateFit(const PlateConstants& constants, double x2, double y2, double& x1, double& y1);

}  // namespace vestrel
