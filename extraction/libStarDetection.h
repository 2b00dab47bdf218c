// Finds the stars of a background-subtracted image: threshold, region fill, moments, rejection.
#pragma once

#include <cstdint>

#include "astro/libParallel.h"
#include "astro/libPlateStar.h"
#include "image/libImage.h"

namespace vestrel {

/// Which regions of bright pixels are stars; `DetectionSettingsOf` takes it from the solve
/// parameters.
struct DetectionSettings {
    double DetectionThreshold = 0;  ///< standard deviations of the sky above its mean
    double EdgeExclusion = 0;       ///< width of the ignored border, fraction of the image size
    std::int16_t MinStarSize = 0;   ///< pixels
    double MaxStarSize = 0;         ///< limit, in standard deviations of the sizes above their mean
};

/// The results of an extraction besides the stars. `MaxFillDepth` is never reset: it keeps the
/// deepest fill ever.
struct ExtractionFacts {
    std::int32_t StarsFound = 0;  ///< stars that passed all filters, before the cap
    double BackgroundSigma = 0;   ///< clipped standard deviation of the sky, counts
    double SkyMean = 0;           ///< clipped mean of the sky, counts
    std::int32_t MaxFillDepth = 0;
};

/// At most this many stars are returned.
inline constexpr std::int32_t MaxExtractedStars = 100;

/// Extracts the stars of an image, brightest first.
///
/// Sky mean and noise come from a two-pass 3-sigma clip of every third pixel; pixels above mean +
/// threshold form regions when they touch, diagonally too; a star's position is the flux-weighted
/// centroid of its region. Regions near the edges, with too few pixels or too large are rejected.
/// Images under 20 × 20 pixels give no stars.
PlateStarList ExtractStars(const PlateImage& image, const DetectionSettings& settings,
                           ExtractionFacts& facts, const Progress& progress = {});

}  // namespace vestrel
