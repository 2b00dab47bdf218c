// A plate from few stars, and what all others make of it.
#pragma once

#include "astro/libPlateStar.h"
#include "matching/libImageStars.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// A plate and the stars that agree with it.
struct MatchedPlate {
    PlateConstants Plate;  ///< catalog plane to pixels
    StarMatchList Pairs;   ///< catalog star, image star
    double Rms = 0;        ///< pixels
    bool Similar = false;  ///< the plate is a similarity: too few pairs for all six constants
    StarMatchList Seed;    ///< the pairs that the plate was made from first
};

/// Fits a similarity (rotation, scale and shift) to the pairs by least squares.
/// @param plate its sign says whether the fit is mirrored. The fit replaces it, unless all catalog
///              stars lie at one place
void FitSimilarPlate(const PlateStarList& catalog, const PlateStarList& image,
                     const StarMatchList& pairs, PlateConstants& plate);

/// Pairs every catalog star with the image star at its predicted place, fits the plate, and repeats
/// this with a smaller tolerance until nothing changes.
/// @param tolerance of the first round, pixels
/// @return false when fewer than 3 pairs are left
bool RefinePlate(const PlateStarList& catalog, const ImageStars& image, double tolerance,
                 MatchedPlate& match);

}  // namespace vestrel
