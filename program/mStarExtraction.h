// The extraction steps of a solve on the loaded image, with their captions and progress.
#pragma once

#include <cstdint>

#include "program/mGeneral.h"

namespace vestrel {

/// Subtracts the sky background of the loaded image in place, once: does nothing when
/// `BackgroundRemoved` is set, and sets it.
/// @param halfSize   of the box, pixels
/// @param percentile 0..100
void SubtractBackground(ProgramState& state, Port& port, std::int16_t halfSize, double percentile);

/// Smooths the loaded image in place.
void GaussianFilter(ProgramState& state, Port& port);

/// Extracts the stars of the loaded image, brightest first, at most 100.
PlateStarList ExtractStars(ProgramState& state, Port& port);

/// Sets the status line of the solve window.
void ShowStatus(ProgramState& state, Port& port, const std::string& text,
                StatusColour colour = StatusColour::Black);

/// A kernel's progress, shown as percent; pending events run as it is reported.
Progress ShownProgress(Port& port);

/// Thrown out of a kernel that is still at work a second after a stop was asked for.
struct StopOverdue {};

/// `ShownProgress` for kernels of a solve that change nothing until they have ended.
/// The progress throws StopOverdue.
Progress StoppableProgress(ProgramState& state, Port& port);

}  // namespace vestrel
