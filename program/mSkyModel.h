// The sky model of the loaded image: from the solution's pairs and the catalog read again, or from
// the plate constants that an image was saved with.
#pragma once

#include <optional>

#include "display/libSkyOverlay.h"
#include "program/libImageSkyModel.h"
#include "program/mGeneral.h"

namespace vestrel {

/// The model of the loaded image's solution; nothing when it has none, or none that a photograph
/// could have. Reads the catalog of the whole image, a few milliseconds.
std::optional<ImageSkyModel> SkyModelOfImage(const ProgramState& state);

/// The same, made when it is asked for first and kept in the state as long as the solution is.
const std::optional<ImageSkyModel>& KeptSkyModel(ProgramState& state);

/// Where things of the sky lie on the image: by the model when the stars gave one, else by the
/// plate; nothing without a solution.
std::optional<SkyMap> SkyMapOf(ProgramState& state);

}  // namespace vestrel
