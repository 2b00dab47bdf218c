// The solve: from the loaded image and a rough pointing to a plate solution.
#pragma once

#include <cstdint>
#include <functional>

#include "program/mGeneral.h"

namespace vestrel {

/// What `SolvePlate` returns.
namespace SolveCode {
inline constexpr std::int16_t Solved = 1;
inline constexpr std::int16_t TooFewStars = 0;
inline constexpr std::int16_t NoMatch = -1;
inline constexpr std::int16_t Stopped = -2;
inline constexpr std::int16_t NoImage = -10;  ///< the image file could not be opened
}  // namespace SolveCode

/// Solves the loaded image.
///
/// Removes the background (once per image), extracts the stars (smoothing once when there are
/// fewer than 12), then tries regions on a square spiral about the starting centre until the stars
/// match, `StopRequested` is seen between two regions, or the limit is used up. The region after
/// the last one counted is still read and matched, but a match there is discarded.
///
/// @param ra, dec     J2000 starting centre (radians); the image centre on success
/// @param plateWidth, plateHeight field of view (radians)
/// @param regionLimit regions to try, the starting one included; below 1 counts as 1
/// @param matchTolerance largest fit error, pixels
/// @return a `SolveCode`: Solved, TooFewStars (fewer than 6; also when memory runs out), NoMatch
///         or Stopped
std::int16_t SolvePlate(ProgramState& state, Port& port, double& ra, double& dec, double plateWidth,
                        double plateHeight, std::int32_t regionLimit, double matchTolerance);

// The solve in pieces, for other ways to find the starting centre.

/// Forgets the last solve's report and a stop that was asked for.
void BeginSolve(ProgramState& state);

/// Runs a piece of a solve. When memory runs out, says so and returns `TooFewStars`; when a kernel
/// is left for a stop, `Stopped`.
std::int16_t WithinMemory(ProgramState& state, Port& port,
                          const std::function<std::int16_t()>& piece);

/// Removes the background and extracts the plate stars, as `SolvePlate` does. False, and shown,
/// when there are fewer than 6: the stars found before then stay.
bool FindPlateStars(ProgramState& state, Port& port);

/// The search of `SolvePlate` over regions, with the plate stars that are there. Same parameters.
std::int16_t MatchPlateStars(ProgramState& state, Port& port, double& ra, double& dec,
                             double plateWidth, double plateHeight, std::int32_t regionLimit,
                             double matchTolerance);

/// Puts the geometry of a plate into the texts and numbers of the solve window.
/// @param rms of the fit, pixels
void ShowPlateGeometry(ProgramState& state, const FitGeometry& geometry, double rms,
                       std::int32_t matched);

/// Advances a square spiral by one cell: along the border of the square of half-width `ring`, then
/// outward. From (0, 0, 0): (1, 0), (1, −1), (0, −1), (−1, −1), (−1, 0), (−1, 1), (0, 1), …
void NextSpiralCell(std::int16_t& i, std::int16_t& j, std::int16_t& ring);

/// After a match: makes the final fit, fills and shows the geometry, and stores the transform in
/// the image header.
void FinishPlateSolution(ProgramState& state, Port& port, const PlateStarList& catalogStars,
                         const PlateStarList& plateStars);

}  // namespace vestrel
