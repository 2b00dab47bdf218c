// How sure a plate is that two pairs of bright stars, or a quad, gave.
#pragma once

#include "matching/libConfidence.h"
#include "matching/libSeededMatch.h"

namespace vestrel {

/// Judges a refined plate by all stars, as if any two pairs of the usual seeds could have given it.
/// When that is not sure, it is judged by its own seed and charged for the plates that were tried:
/// few stars bear that.
/// @param catalog, image what the plate was matched with
/// @param trials  searches made so far, this one included: regions, or quads that fitted
/// @param plates  that each search tries; 0 when it does not keep to a size
MatchConfidence ConfidenceOf(const MatchedPlate& match, const PlateStarList& catalog,
                             const ImageStars& image, double trials, double plates);

}  // namespace vestrel
