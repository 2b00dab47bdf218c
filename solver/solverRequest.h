// From a caller's settings and hints to the program's.
#pragma once

#include "program/mPictureHints.h"
#include "solver/solver.h"

namespace vestrel {

/// @throws std::invalid_argument for a setting or hint outside its range
void RequireValid(const SolverSettings& settings);
void RequireValid(const SolverHints& hints);

/// The settings as the program's parameters, and back.
void TakeSettings(const SolverSettings& settings, SolveParameters& parameters);
SolverSettings SettingsOf(const SolveParameters& parameters);

/// The hints as what is known of the loaded image, of which they may name sizes in pixels.
KnownOfPicture KnownFrom(const SolverHints& hints, const PlateImage& image);

}  // namespace vestrel
