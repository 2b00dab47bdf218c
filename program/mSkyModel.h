// The sky model of the loaded image: from the solution's pairs and the catalog read again, or from
// the plate constants that an image was saved with.
#pragma once

#include <optional>

#include "display/libSkyOverlay.h"
#include "program/libImageSkyModel.h"
#include "program/mGeneral.h"

namespace vestrel {

/// The model of the loaded image's solution. Nothing when there is no solution, when its plate
/// cannot be that of a photograph, or when the field is wide and its stars bear no model. Reads the
/// catalog of the whole image, which takes a few milliseconds.
std::optional<ImageSkyModel> SkyModelOfImage(const ProgramState& state);

/// The same, made at the first call and kept in the state as long as the solution.
const std::optional<ImageSkyModel>& KeptSkyModel(ProgramState& state);

/// Whether the image has a solution but no world coordinates: its field is so wide that the plate
/// is wrong by many pixels away from the centre, and its stars bear no model.
bool IsTooWide(const ProgramState& state);
inline constexpr const char* TooWideText =
    "The field is too wide for world coordinates: its stars fit no lens.";

/// The map between sky and image: the model when it was fitted to stars, else the plate; nothing
/// without a solution.
std::optional<SkyMap> SkyMapOf(ProgramState& state);

}  // namespace vestrel
