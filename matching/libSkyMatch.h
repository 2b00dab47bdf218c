// From a first match to the sky model of the whole image: every star is matched, in rounds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "matching/libSkyModelFit.h"

namespace vestrel {

/// A star of the catalog and its star in the image.
struct SkyPair {
    std::size_t CatalogStar = 0;  ///< index in its list
    std::size_t PlateStar = 0;    ///< index in its list
    double Residual = 0;          ///< pixels; set by `MatchSky`
};

/// A ring of the image between two distances from its centre.
struct SkyRing {
    double Outer = 0;  ///< its outer distance, as a fraction of the half-diagonal
    std::int32_t Stars = 0;
    double Rms = 0;  ///< root mean square of the residuals, pixels
};

struct SkySolution {
    SkyModelFit Fit;
    std::vector<SkyPair> Pairs;  ///< in the order of the image stars; each star is in at most one
    double Rms = 0;              ///< root mean square of the pairs' residuals, pixels
    std::array<SkyRing, 4> Rings;
    /// Whether the outer part of the image has its share of pairs, and the stars known to match
    /// have theirs. If not, positions near the edges can be wrong.
    bool ReachesEdges = true;
};

/// Matches every star that it can and fits the sky model to the pairs.
///
/// Starting from a fit without distortion through `start`, all stars of both lists that are nearest
/// to each other within a tolerance become pairs; outliers are left out by the median of the
/// residuals; and the tolerance shrinks with the fit. The distortion is none, that of a lens,
/// or a SIP polynomial of order 2 to 4: a larger one is taken when the F-test gives chance less
/// than 1 in 100 (of a lens of third order) or 1 in 10,000 (of others) to do as well, when there
/// are at least as many stars as constants, and when they cover the image, so that the model is
/// nowhere in it three times less sure than one of its stars (1.75 times for higher powers, which
/// run away where no star holds them).
///
/// When pairs are missing near the edges or fewer than three quarters of `known`, or when a lens of
/// that strength should have terms that the fit lacks, the pairs are also followed outward ring by
/// ring, so that a lens may move the corners by any distance.
///
/// @param catalog J2000 positions, brightest first
/// @param plate positions of the image stars, brightest first
/// @param start three pairs or more, with few wrong ones
/// @param known how many catalog stars are known to match
/// @return nothing when no fit succeeds; only the first match is known then
std::optional<SkySolution> MatchSky(const std::vector<SkyPosition>& catalog,
                                    const std::vector<PixelPoint>& plate, std::int32_t width,
                                    std::int32_t height, const std::vector<SkyPair>& start,
                                    std::size_t known = 0);

}  // namespace vestrel
