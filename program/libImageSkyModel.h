// The sky model of an image, with the stars that it was fitted to.
#pragma once

#include <optional>

#include "astro/libPlateStar.h"
#include "matching/libSkyMatch.h"

namespace vestrel {

/// Which place of the sky each pixel of the loaded image shows.
struct ImageSkyModel {
    SkyModel Model;
    /// The fit to all stars. Nothing for an image that was opened solved, or where the stars bear
    /// no better model than the plate: then the model is the plate as an ordinary photograph.
    std::optional<SkySolution> Solution;
    /// How faint the stars are that a solve of this field compares: those that overlays show.
    double MagnitudeLimit = 0;
    PlateStarList CatalogStars;  ///< that its pairs point to, index 0 being number 1
};

}  // namespace vestrel
