#include "matching/libSeededRegions.h"

#include <atomic>
#include <cstddef>
#include <thread>

#include "astro/libParallel.h"

namespace vestrel {

SeededRegions::SeededRegions(const SeededJudge& judge, const SeedSettings& settings)
    : judge_(judge), matcher_(judge.Image(), settings) {}

void SeededRegions::Match(std::vector<SeededRegion>& regions, const std::function<bool()>& stop) {
    while (copies_.size() + 1 < regions.size()) copies_.push_back(matcher_);
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> stopped{false};
    std::atomic<std::size_t> first{regions.size()};  // region with a plate
    ParallelFor(static_cast<int>(regions.size()), [&](int piece) {
        const auto place = static_cast<std::size_t>(piece);
        SeededRegion& region = regions[place];
        SeedMatcher& matcher = place == 0 ? matcher_ : copies_[place - 1];
        const double plates = matcher.PlatesOf(region.Catalog);
        const auto accept = [&](const MatchedPlate& match) {
            const MatchConfidence confidence =
                judge_.Judge(match, region.Catalog, region.Trials, plates);
            if (!IsSure(confidence)) return false;
            region.Plate = match;
            region.Confidence = confidence;
            std::size_t before = first;
            while (place < before && !first.compare_exchange_weak(before, place)) {
            }
            return true;
        };
        const auto mustEnd = [&] {
            if (std::this_thread::get_id() == caller && stop()) stopped = true;
            return stopped || first < place;
        };
        matcher.Match(region.Catalog, accept, mustEnd);
    });
    for (std::size_t i = first + 1; i < regions.size(); ++i) regions[i].Plate.reset();
}

}  // namespace vestrel
