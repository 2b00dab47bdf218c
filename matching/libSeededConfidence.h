// How sure a plate is that was found from two pairs of bright stars or from a quad.
#pragma once

#include "matching/libConfidence.h"
#include "matching/libSeededMatch.h"

namespace vestrel {

/// Judges a refined plate by all stars, as if any two pairs of the usual seeds could have given it.
/// When the result is not sure, the plate is judged by its own seed and charged for the plates that
/// were actually tried, which suits images with few stars.
/// @param catalog, image the lists that the plate was matched with
/// @param trials searches made so far, including this one: regions, or quads that fitted
/// @param plates plates that each search tries; 0 when no size restricts it
MatchConfidence ConfidenceOf(const MatchedPlate& match, const PlateStarList& catalog,
                             const ImageStars& image, double trials, double plates);

}  // namespace vestrel
