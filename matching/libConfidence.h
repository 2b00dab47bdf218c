// How sure a match is: the likelihood ratio of the plate against chance, and the false-alarm
// probability that follows from it.
//
// The test of Lang et al. 2010 (AJ 139, 1782), section 3.3, made sequential. The stars of the image
// are taken one by one, brightest first. Each is compared under two models: it is one of the
// catalog's stars in the frame, at its predicted place within its errors, or a distractor (a
// mixture), or it lies wherever the image has stars (chance). The predicting plate knows only the
// pairs before: it begins with a few pairs, the seed, which do not count, and learns from each
// matched star (Dawid 1984, J. R. Statist. Soc. A 147, 278). So no star is judged by a fit that
// includes it. Under chance the running product of the likelihood ratios is a nonnegative
// supermartingale that begins at 1: its maximum exceeds K with a probability of at most 1/K (Ville
// 1939), whenever the search stopped. Each seed that could have been tried counts as one trial (the
// union bound), whether a search looked at all of them or at a few.
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libPlateStar.h"
#include "matching/libFrameStars.h"
#include "matching/libPlateFit.h"

namespace vestrel {

/// The evidence for a match, in numbers.
struct MatchConfidence {
    std::int32_t Matched = 0;     ///< catalog stars that match a star of the image, each counted
                                  ///< once
    std::int32_t Candidates = 0;  ///< catalog stars in the frame
    double ExpectedByChance = 0;  ///< how many would match one if the image showed other stars
    double Log10FalseAlarm = 0;   ///< log10 of the probability that chance gives a match as good;
                                  ///< at most 0
    double Log10LikelihoodRatio = 0;  ///< plate against chance, before the trials are charged
    double Log10Trials = 0;           ///< log10 of the number of plates that is charged
};

/// A match is sure when its false-alarm probability is at most 1e-6.
inline constexpr double SureLog10FalseAlarm = -6;
inline bool IsSure(const MatchConfidence& confidence) {
    return confidence.Log10FalseAlarm <= SureLog10FalseAlarm;
}

/// A match to be judged. The predicted places may come from any model; they need to be right only
/// to a few hundredths of the frame's size.
struct MatchEvidence {
    std::vector<PredictedStar> Catalog;  ///< all in the frame; only the brightest 1000 count
    std::vector<ObservedStar> Image;     ///< all that were found; only the brightest 400 count
    /// `Image` when it was prepared before, for many matches of one image; `Image` may be empty
    /// then. It must outlive the judgement.
    const ObservedField* Field = nullptr;
    /// Leaves out `Matched` and `ExpectedByChance`, which cost as much as the test itself, when the
    /// match is not sure.
    bool CountOnlyIfSure = false;
    std::int32_t Width = 0;  ///< of the image, pixels
    std::int32_t Height = 0;
    PlateConstants Plate;  ///< the model's linear part, for its stretch and skew
    /// How many searches were made up to and including this match: regions times the lists tried in
    /// them, or quads that fitted. The count is charged as one that would have gone on.
    double Trials = 1;
    /// The pairs that match by construction, such as those of a quad; indices into `Catalog` and
    /// `Image`. When empty, a search may have tried any two pairs of its lists, and is charged for
    /// all of them.
    std::vector<StarPlaces> Seed;
    std::int32_t SearchedCatalog = 0;  ///< catalog stars of such a search; 0: all of `Catalog`
    std::int32_t SearchedImage = 0;    ///< image stars of such a search; 0: all of `Image`
    /// The number of plates that each search looked at, counted before stars were compared, when a
    /// given size or centre restricted them; 0: all plates through two pairs of its lists.
    double PlatesInEach = 0;
};

/// The evidence for a linear plate: the catalog stars that it puts into the frame, and the stars
/// of the image. `Trials` and what follows it are left to the caller.
/// @param catalogStars on the plane of the fit, with magnitudes as fluxes
/// @param imageStars   pixels
MatchEvidence EvidenceOf(const PlateConstants& plate, const PlateStarList& catalogStars,
                         const PlateStarList& imageStars, std::int32_t width, std::int32_t height);

/// The stars of an image as evidence.
std::vector<ObservedStar> ObservedStars(const PlateStarList& imageStars);

/// Judges a match. Deterministic; takes a few milliseconds at most.
MatchConfidence ConfidenceOf(const MatchEvidence& evidence);

/// log10 of the charge for a running count of trials: n(1 + ln n)² times a factor that keeps the
/// sum of the inverses over all n below 1, so that the bound holds for every n at once.
double Log10TrialsCharge(double trials);

}  // namespace vestrel
