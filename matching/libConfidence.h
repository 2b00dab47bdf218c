// How sure a match is: what chance alone would have given.
//
// The a-contrario test of Lang et al. 2010 (AJ 139, 1782), section 3, in its simplest form: on an
// image whose stars lie anywhere, each catalog star meets one with the same small probability.
#pragma once

#include <cstdint>

#include "astro/libPlateStar.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// What speaks for a match.
struct MatchConfidence {
    std::int32_t Matched = 0;     ///< catalog stars that meet a star of the image
    std::int32_t Candidates = 0;  ///< catalog stars in the frame that could meet one
    double ExpectedByChance = 0;  ///< how many would, were the image another part of the sky
    double Log10FalseAlarm = 0;   ///< of the probability that chance gives a match as good, ≤ 0
};

/// A false-alarm probability above this is not sure.
inline constexpr double SureLog10FalseAlarm = -6;
inline bool IsSure(const MatchConfidence& confidence) {
    return confidence.Log10FalseAlarm <= SureLog10FalseAlarm;
}

/// log10 of the probability of `k` or more successes in `n` trials of probability `p`.
double Log10BinomialTail(std::int32_t n, std::int32_t k, double p);

/// A match to be judged.
struct MatchEvidence {
    const PlateStarList& CatalogStars;  ///< 1-based, on the plane of the fit
    std::int32_t CatalogCount = 0;
    const PlateStarList& ImageStars;  ///< 1-based, pixels
    std::int32_t ImageCount = 0;
    std::int32_t Width = 0;  ///< of the image, pixels
    std::int32_t Height = 0;
    double Tolerance = 0;          ///< stars that lie closer meet, pixels
    std::int32_t StarsFitted = 0;  ///< pairs that any placement would have by construction
    double Placements = 1;         ///< how many were tried before this one
};

/// Counts the catalog stars in the frame that meet an image star, each image star once, and
/// weighs them against the density of the image's stars: the mean one, or that of the part where
/// the catalog stars lie when it is higher. `StarsFitted` of them count for nothing.
MatchConfidence ConfidenceOf(const PlateConstants& plate, const MatchEvidence& evidence);

}  // namespace vestrel
