// Matches the stars of an image with one region of the catalog after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCache.h"
#include "matching/libAlign.h"

namespace vestrel {

/// What all regions of a search share.
struct RegionSettings {
    double Radius = 0;          ///< of a region, radians
    double MagnitudeLimit = 0;  ///< stars of this magnitude and fainter ones are left out
    double MaxError = 0;        ///< largest fit error, pixels
    AlignSettings Align;
};
/// The regions of a field of view (radians): the radius is half its diagonal, the magnitude limit
/// what suits that.
RegionSettings RegionSettingsFor(double width, double height, double maxError,
                                 const AlignSettings& align);

/// A region of the catalog, and how the stars of the image go with it.
struct RegionMatch {
    SkyPosition Centre;          ///< of the region, and tangent point of its plane
    PlateStarList CatalogStars;  ///< brightest first; X and Y are arcseconds about `Centre`
    Alignment Found;
};

/// Reads and matches regions. The triangles of the image are made once.
///
/// Regions are searched one after the other until one matches, so the threads take the coming ones
/// ahead: those whose catalog cells are in memory already, as long as all before them are. That
/// changes nothing but the time, since the cache is as it would be and reading a region brings it
/// to where it would have been. What was matched ahead waits until its region is read.
class RegionMatcher {
 public:
    /// @param plateStars brightest first; they and the catalog must outlive the matcher
    RegionMatcher(CatalogCache& catalog, const PlateStarList& plateStars,
                  const RegionSettings& settings)
        : catalog_(catalog), plateStars_(plateStars), settings_(settings) {}

    const RegionSettings& Settings() const { return settings_; }

    /// Reads the catalog stars about a centre.
    RegionMatch Read(SkyPosition centre);
    /// Matches the region that was read last.
    void Match(RegionMatch& region, const Progress& progress = {});

    /// How many centres after the one read last `MatchWithNext` would like to know: 0 when that
    /// one has been matched, or when there is one thread.
    std::size_t WantsNext() const;
    /// Matches the region that was read last, and regions that are likely to be read next, in this
    /// order.
    void MatchWithNext(RegionMatch& region, std::span<const SkyPosition> next,
                       const Progress& progress = {});

 private:
    void MatchUsing(KeptTriangles& triangles, RegionMatch& region, const Progress& progress) const;

    CatalogCache& catalog_;
    const PlateStarList& plateStars_;
    RegionSettings settings_;
    std::vector<KeptTriangles> plateTriangles_ = std::vector<KeptTriangles>(1);  ///< of each piece
    std::deque<RegionMatch> ahead_;     ///< regions matched ahead, in order
    std::uint64_t changesAtMatch_ = 0;  ///< of the catalog, when they were
    bool isMatched_ = false;            ///< the region read last
    std::size_t regionsAhead_ = 7;
};

}  // namespace vestrel
