// Matches the stars of an image with regions of the catalog, one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <span>
#include <vector>

#include "astro/libSphericalMath.h"
#include "catalog/libCatalogCache.h"
#include "catalog/libCatalogRegion.h"
#include "matching/libAlign.h"

namespace vestrel {

/// The settings that all regions of a search share.
struct RegionSettings {
    double Radius = 0;          ///< of a region, radians
    double MagnitudeLimit = 0;  ///< stars of this magnitude and fainter are left out
    double MaxError = 0;        ///< as in `AlignImages`
    AlignSettings Align;
    SkySides Sides = SkySides::Both;
};
/// The settings for a field of view (radians): the radius is half its diagonal, and the magnitude
/// limit suits that radius.
RegionSettings RegionSettingsFor(double width, double height, double maxError,
                                 const AlignSettings& align);

/// A region of the catalog, and its match with the stars of the image.
struct RegionMatch {
    SkyPosition Centre;          ///< of the region, and tangent point of its plane
    PlateStarList CatalogStars;  ///< brightest first; X and Y are arcseconds about `Centre`
    Alignment Found;
};

/// Reads and matches regions. The triangles of the image are made once.
///
/// Regions are searched one after the other until one matches. Meanwhile other threads match the
/// next regions ahead, as long as the catalog cells of all these are in memory. This only saves
/// time: it leaves the cache unchanged, and reading a region later updates the cache as usual. The
/// results wait until their region is read.
class RegionMatcher {
 public:
    /// @param plateStars brightest first; they and the catalog must outlive the matcher
    RegionMatcher(CatalogCache& catalog, const PlateStarList& plateStars,
                  const RegionSettings& settings)
        : catalog_(catalog), plateStars_(plateStars), settings_(settings) {}

    const RegionSettings& Settings() const { return settings_; }

    /// Reads the catalog stars about a centre.
    RegionMatch Read(SkyPosition centre);
    /// Matches the last region that was read.
    void Match(RegionMatch& region, const Progress& progress = {});

    /// How many of the next centres `MatchWithNext` can use: 0 when the last region has been
    /// matched already, or with one thread.
    std::size_t WantsNext() const;
    /// Matches the region that was read last, and regions that are likely to be read next, in this
    /// order.
    void MatchWithNext(RegionMatch& region, std::span<const SkyPosition> next,
                       const Progress& progress = {});

 private:
    Alignment Align(const PlateStarList& catalogStars, const Progress& progress);

    CatalogCache& catalog_;
    const PlateStarList& plateStars_;
    RegionSettings settings_;
    std::vector<KeptTriangles>
        plateTriangles_;  ///< the image's, for as many threads as have matched
    std::mutex plateTrianglesLock_;
    std::deque<RegionMatch> ahead_;     ///< regions matched ahead, in order
    std::uint64_t changesAtMatch_ = 0;  ///< `Changes` of the catalog cache at that time
    bool isMatched_ = false;            ///< whether the last region read has been matched
    std::size_t regionsAhead_ = 7;
};

}  // namespace vestrel
