// Matches the stars of an image with one region of the catalog after the other.
#pragma once

#include <cstdint>

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
class RegionMatcher {
 public:
    /// @param plateStars brightest first; they and the catalog must outlive the matcher
    RegionMatcher(CatalogCache& catalog, const PlateStarList& plateStars,
                  const RegionSettings& settings)
        : catalog_(catalog), plateStars_(plateStars), settings_(settings) {}

    const RegionSettings& Settings() const { return settings_; }

    /// Reads the catalog stars about a centre.
    RegionMatch Read(SkyPosition centre);
    /// Matches a region that was read.
    void Match(RegionMatch& region, const Progress& progress = {});

 private:
    CatalogCache& catalog_;
    const PlateStarList& plateStars_;
    RegionSettings settings_;
    KeptTriangles plateTriangles_;
};

}  // namespace vestrel
