#include "matching/libRegionMatch.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"

namespace vestrel {

RegionSettings RegionSettingsFor(double width, double height, double maxError,
                                 const AlignSettings& align) {
    const double radius = std::sqrt(width * width + height * height) / 2;
    return {radius, MagnitudeLimitFor(radius), maxError, align};
}

namespace {

Projection PlaneAbout(SkyPosition centre) {
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    return plane;
}

}  // namespace

RegionMatch RegionMatcher::Read(SkyPosition centre) {
    isMatched_ = !ahead_.empty() && ahead_.front().Centre.Ra == centre.Ra &&
                 ahead_.front().Centre.Dec == centre.Dec && catalog_.Changes == changesAtMatch_;
    if (isMatched_) {
        catalog_.LoadRegion(centre, settings_.Radius);
        RegionMatch region = std::move(ahead_.front());
        ahead_.pop_front();
        return region;
    }
    ahead_.clear();
    return {centre,
            RegionStars(catalog_, PlaneAbout(centre), centre, settings_.Radius,
                        settings_.MagnitudeLimit),
            {}};
}

void RegionMatcher::MatchUsing(KeptTriangles& triangles, RegionMatch& region,
                               const Progress& progress) const {
    region.Found = AlignImages(region.CatalogStars, plateStars_, settings_.MaxError,
                               settings_.Align, triangles, progress);
}

void RegionMatcher::Match(RegionMatch& region, const Progress& progress) {
    if (!isMatched_) MatchUsing(plateTriangles_.front(), region, progress);
    isMatched_ = true;
}

std::size_t RegionMatcher::WantsNext() const {
    return isMatched_ || ParallelThreads() == 1 ? 0 : regionsAhead_;
}

void RegionMatcher::MatchWithNext(RegionMatch& region, std::span<const SkyPosition> next,
                                  const Progress& progress) {
    if (isMatched_) return;
    std::size_t held = 0;
    while (held < next.size() && catalog_.HoldsRegion(next[held], settings_.Radius)) ++held;
    if (held == 0) {
        Match(region, progress);
        return;
    }
    // Limits the wasted work if one of the first regions matches.
    constexpr std::size_t mostAhead = 31;
    regionsAhead_ = std::min(2 * regionsAhead_ + 1, mostAhead);

    // Each piece keeps triangles of the image for its regions, and for those of the next round.
    constexpr std::size_t regionsPerPiece = 4;
    const std::size_t regions = 1 + held;
    const std::size_t pieces = (regions + regionsPerPiece - 1) / regionsPerPiece;
    plateTriangles_.resize(std::max(plateTriangles_.size(), pieces));
    std::vector<RegionMatch> matched(held);
    std::vector<char> complete(held);
    const auto matchPiece = [&](int number) {
        const auto piece = static_cast<std::size_t>(number);
        for (std::size_t i = piece; i < regions; i += pieces) {
            KeptTriangles& triangles = plateTriangles_[piece];
            if (i == 0) {
                MatchUsing(triangles, region, {});
                continue;
            }
            const SkyPosition centre = next[i - 1];
            std::optional<PlateStarList> stars = RegionStarsInMemory(
                catalog_, PlaneAbout(centre), centre, settings_.Radius, settings_.MagnitudeLimit);
            if (!stars) continue;
            matched[i - 1] = {centre, std::move(*stars), {}};
            MatchUsing(triangles, matched[i - 1], {});
            complete[i - 1] = 1;
        }
    };
    ParallelFor(static_cast<int>(pieces), matchPiece, progress);
    isMatched_ = true;
    changesAtMatch_ = catalog_.Changes;
    for (std::size_t i = 0; i < held && complete[i] != 0; ++i) {
        ahead_.push_back(std::move(matched[i]));
    }
}

}  // namespace vestrel
