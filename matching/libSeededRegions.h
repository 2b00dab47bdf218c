// Seeded matches of several regions at once.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "astro/libSphericalMath.h"
#include "matching/libSeededConfidence.h"

namespace vestrel {

/// A region of the sky, and the sure plate that was found in it.
struct SeededRegion {
    SkyPosition Centre;
    PlateStarList Catalog;  ///< brightest first, arcseconds on a gnomonic plane about the centre
    double Trials = 1;      ///< searches that are charged to its plates: those before and itself
    std::optional<MatchedPlate> Plate;
    MatchConfidence Confidence;  ///< of the plate
};

/// Searches regions for one image. It keeps what all of them need.
class SeededRegions {
 public:
    /// @param judge must outlive this
    SeededRegions(const SeededJudge& judge, const SeedSettings& settings);

    /// Matches each region with the image, on several threads. What is found does not depend on
    /// their number: regions after the first that has a plate are left without one.
    /// @param stop asked now and then, on the calling thread only; true ends the search
    void Match(std::vector<SeededRegion>& regions, const std::function<bool()>& stop);

 private:
    const SeededJudge& judge_;
    SeedMatcher matcher_;
    std::vector<SeedMatcher> copies_;  ///< for the second region and those after it
};

}  // namespace vestrel
