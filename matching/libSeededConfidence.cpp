#include "matching/libSeededConfidence.h"

#include <algorithm>

namespace vestrel {

namespace {

/// Adds a pair to the seed of the evidence, when its catalog star is in the frame.
void AddSeed(MatchEvidence& evidence, const PlateConstants& plate, const PlateStarList& catalog,
             const StarMatch& pair) {
    const PlateStar& star = catalog[pair.Star1];
    double x = 0;
    double y = 0;
    ApplyPlateFit(plate, static_cast<double>(star.X), static_cast<double>(star.Y), x, y);
    const auto found =
        std::find_if(evidence.Catalog.begin(), evidence.Catalog.end(),
                     [x, y](const PredictedStar& other) { return other.X == x && other.Y == y; });
    if (found == evidence.Catalog.end()) return;
    evidence.Seed.push_back({static_cast<std::size_t>(found - evidence.Catalog.begin()),
                             static_cast<std::size_t>(pair.Star2) - 1});
}

}  // namespace

SeededJudge::SeededJudge(const ImageStars& image, const SeedSettings& settings)
    : image_(image),
      settings_(settings),
      field_(ObservedStars(image.Stars()), image.Width(), image.Height()) {
    field_.KeepDensities();
}

MatchConfidence SeededJudge::Judge(const MatchedPlate& match, const PlateStarList& catalog,
                                   double trials, double plates) const {
    MatchEvidence evidence = EvidenceOf(match.Plate, catalog, {}, image_.Width(), image_.Height());
    evidence.Field = &field_;
    evidence.CountOnlyIfSure = true;
    evidence.SearchedCatalog = std::min(settings_.CatalogSeeds, catalog.Count());
    evidence.SearchedImage = std::min(settings_.ImageSeeds, image_.Count());
    evidence.Trials = trials;
    const MatchConfidence confidence = ConfidenceOf(evidence);
    if (IsSure(confidence) || plates <= 0) return confidence;
    for (const StarMatch& pair : match.Seed) AddSeed(evidence, match.Plate, catalog, pair);
    if (evidence.Seed.size() < 2) return confidence;
    // The second test of the same match doubles the number of plates charged.
    evidence.PlatesInEach = 2 * plates;
    const MatchConfidence own = ConfidenceOf(evidence);
    return IsSure(own) ? own : confidence;
}

}  // namespace vestrel
