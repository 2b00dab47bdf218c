#include "matching/libRegionMatch.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "astro/libMath.h"

namespace vestrel {

RegionSettings RegionSettingsFor(double width, double height, double maxError,
                                 const AlignSettings& align) {
    const double radius = std::sqrt(width * width + height * height) / 2;
    return {radius, MagnitudeLimitFor(radius), maxError, align, SkySides::Both};
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
    if (settings_.Sides == SkySides::This) {
        return {centre,
                WholeRegionStars(catalog_, centre, settings_.Radius, settings_.MagnitudeLimit),
                {}};
    }
    return {centre,
            RegionStars(catalog_, PlaneAbout(centre), centre, settings_.Radius,
                        settings_.MagnitudeLimit, settings_.Sides),
            {}};
}

/// Matches catalog stars, on any thread, with triangles of the image that no other thread uses.
Alignment RegionMatcher::Align(const PlateStarList& catalogStars, const Progress& progress) {
    KeptTriangles triangles;
    {
        const std::lock_guard guard(plateTrianglesLock_);
        if (!plateTriangles_.empty()) {
            triangles = std::move(plateTriangles_.back());
            plateTriangles_.pop_back();
        }
    }
    Alignment found = AlignImages(catalogStars, plateStars_, settings_.MaxError, settings_.Align,
                                  triangles, progress);
    const std::lock_guard guard(plateTrianglesLock_);
    plateTriangles_.push_back(std::move(triangles));
    return found;
}

void RegionMatcher::Match(RegionMatch& region, const Progress& progress) {
    if (!isMatched_) region.Found = Align(region.CatalogStars, progress);
    isMatched_ = true;
}

std::size_t RegionMatcher::WantsNext() const {
    // `MatchWithNext` looks for the next regions' cells where ordinary regions have them.
    const bool wide = settings_.Sides == SkySides::This && IsWideRegion(settings_.Radius);
    return isMatched_ || wide || ParallelThreads() == 1 ? 0 : regionsAhead_;
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

    std::vector<RegionMatch> matched(held);
    std::vector<char> complete(held);
    const auto matchOne = [&](int number) {
        if (number == 0) {
            region.Found = Align(region.CatalogStars, {});
            return;
        }
        const auto i = static_cast<std::size_t>(number - 1);
        std::optional<PlateStarList> stars =
            RegionStarsInMemory(catalog_, PlaneAbout(next[i]), next[i], settings_.Radius,
                                settings_.MagnitudeLimit, settings_.Sides);
        if (!stars) return;
        matched[i] = {next[i], std::move(*stars), {}};
        matched[i].Found = Align(matched[i].CatalogStars, {});
        complete[i] = 1;
    };
    ParallelFor(static_cast<int>(1 + held), matchOne, progress);
    isMatched_ = true;
    changesAtMatch_ = catalog_.Changes;
    for (std::size_t i = 0; i < held && complete[i] != 0; ++i) {
        ahead_.push_back(std::move(matched[i]));
    }
}

}  // namespace vestrel
