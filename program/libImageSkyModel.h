// The sky model of an image, with the stars that it was fitted to.
#pragma once

#include <optional>

#include "astro/libPlateStar.h"
#include "matching/libSkyMatch.h"

namespace vestrel {

/// The map between the pixels of the loaded image and the sky.
struct ImageSkyModel {
    SkyModel Model;
    /// The fit to all stars. Nothing for an image that was opened solved, or when the stars support
    /// no better model than the plate: the model is then the plate, converted to a gnomonic map.
    std::optional<SkySolution> Solution;
    /// The faintest magnitude that a solve of this field compares; overlays show stars down to it.
    double MagnitudeLimit = 0;
    PlateStarList CatalogStars;  ///< the stars that `Solution`'s pairs point to: index 0 there is
                                 ///< number 1 here
};

}  // namespace vestrel
