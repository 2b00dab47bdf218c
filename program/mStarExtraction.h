// The extraction steps of a solve on the loaded image, with their captions and progress.
#pragma once

#include <cstdint>

#include "program/mGeneral.h"

namespace vestrel {

/// Subtracts the sky background of the loaded image in place and sets `BackgroundRemoved`. Does
/// nothing when that is set already.
/// @param halfSize half the side of the box, pixels
/// @param percentile 0..100
void SubtractBackground(ProgramState& state, Port& port, std::int16_t halfSize, double percentile);

/// Smooths the loaded image in place.
void GaussianFilter(ProgramState& state, Port& port);

/// The parameters that the star detection needs.
DetectionSettings DetectionSettingsOf(const SolveParameters& parameters);

/// Extracts the stars of the loaded image, brightest first, at most 100.
PlateStarList ExtractStars(ProgramState& state, Port& port);

/// Sets the status line of the solve window.
void ShowStatus(ProgramState& state, Port& port, const std::string& text,
                StatusColour colour = StatusColour::Black);

/// Shows a kernel's progress as percent and runs pending events with each report.
Progress ShownProgress(Port& port);

/// Thrown out of a kernel that still runs when `StopPatience` is over.
struct StopOverdue {};

/// As `ShownProgress`, but it may throw `StopOverdue`: only for kernels that change nothing before
/// their end.
Progress StoppableProgress(ProgramState& state, Port& port);

}  // namespace vestrel
