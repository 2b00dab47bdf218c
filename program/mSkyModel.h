// The sky model of the loaded image: from the solution's pairs and the catalog read again, or from
// the plate constants that an image was saved with.
#pragma once

#include <optional>

#include "matching/libSkyMatch.h"
#include "program/mGeneral.h"

namespace vestrel {

/// Which place of the sky each pixel of the loaded image shows.
struct ImageSkyModel {
    SkyModel Model;
    /// The fit to all stars. Nothing for an image that was opened solved, or where the stars bear
    /// no better model than the plate: then the model is the plate as an ordinary photograph.
    std::optional<SkySolution> Solution;
    PlateStarList CatalogStars;  ///< that its pairs point to, index 0 being number 1
};

/// The model of the loaded image's solution; nothing when it has none, or none that a photograph
/// could have. Reads the catalog of the whole image, a few milliseconds.
std::optional<ImageSkyModel> SkyModelOfImage(const ProgramState& state);

}  // namespace vestrel
