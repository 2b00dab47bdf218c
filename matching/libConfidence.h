// How sure a match is: the odds that the plate is right against chance, and the false-alarm
// probability that follows.
//
// The test of Lang et al. 2010 (AJ 139, 1782), section 3.3, made sequential. The stars of the image
// are taken one by one, brightest first. Each is compared under two models: it is one of the
// catalog's stars in the frame, at its predicted place within its errors, or a distractor (a
// mixture), or it lies wherever the image has stars (chance). The plate that predicts knows only
// the pairs before: it begins as that of a few pairs, the seed, which count for nothing, and learns
// from each star met (Dawid 1984, J. R. Statist. Soc. A 147, 278). So nothing is judged by a fit
// that it took part in. Under chance the running product of the likelihood ratios is a
// nonnegative supermartingale that begins at 1: its maximum exceeds K with a probability of at most
// 1/K (Ville 1939), however the search stopped. Each seed that could have been tried is one more
// chance (the union bound), whether a search looked at all of them or at few.
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libPlateStar.h"
#include "matching/libFrameStars.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// What speaks for a match.
struct MatchConfidence {
    std::int32_t Matched = 0;     ///< catalog stars that meet a star of the image, each one once
    std::int32_t Candidates = 0;  ///< catalog stars in the frame
    double ExpectedByChance = 0;  ///< how many would meet one, were the image of other stars
    double Log10FalseAlarm = 0;   ///< of the probability that chance gives a match as good, ≤ 0
    double Log10LikelihoodRatio = 0;  ///< plate against chance, the trials not charged
    double Log10Trials = 0;           ///< of the plates that are charged for
};

/// A false-alarm probability above this is not sure.
inline constexpr double SureLog10FalseAlarm = -6;
inline bool IsSure(const MatchConfidence& confidence) {
    return confidence.Log10FalseAlarm <= SureLog10FalseAlarm;
}

/// A match to be judged. What is predicted may come from any model; of it only the place of the
/// frame counts, to a few hundredths of its size.
struct MatchEvidence {
    std::vector<PredictedStar> Catalog;  ///< all in the frame; from the 1001st brightest on ignored
    std::vector<ObservedStar> Image;  ///< all that were found; from the 401st brightest on ignored
    std::int32_t Width = 0;           ///< of the image, pixels
    std::int32_t Height = 0;
    PlateConstants Plate;  ///< linear part of the model: tells how far the plate is stretched
    /// How many searches were made up to this match, this one included: regions times the lists
    /// tried in them, or quads that fitted. It is taken for a count that would have gone on.
    double Trials = 1;
    /// The pairs that every plate tried would have by construction: those of a quad. When empty, a
    /// search may have tried any two pairs of its lists, and is charged for all of them.
    std::vector<StarPlaces> Seed;      ///< places in `Catalog` and `Image`
    std::int32_t SearchedCatalog = 0;  ///< catalog stars of such a search; 0: all of `Catalog`
    std::int32_t SearchedImage = 0;    ///< image stars of such a search; 0: all of `Image`
    /// Plates that each search looked at when it was more choosy than that (a size and centre to
    /// keep to), counted before the stars were compared; 0: all through two pairs of its lists.
    double PlatesInEach = 0;
};

/// The evidence for a linear plate: the catalog stars that it puts into the frame, and the stars
/// of the image. `Trials` and what follows it are left to the caller.
/// @param catalogStars on the plane of the fit, magnitude as flux
/// @param imageStars   pixels
MatchEvidence EvidenceOf(const PlateConstants& plate, const PlateStarList& catalogStars,
                         const PlateStarList& imageStars, std::int32_t width, std::int32_t height);

/// Judges a match. Deterministic; takes a few milliseconds at most.
MatchConfidence ConfidenceOf(const MatchEvidence& evidence);

/// log10 of what a running count of trials costs: n(1 + ln n)² with a factor that keeps the sum of
/// the inverses over all n below 1, so that the bound holds for every n at once.
double Log10TrialsCharge(double trials);

}  // namespace vestrel
