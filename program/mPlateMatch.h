// The solve: from the loaded image and a rough pointing to a plate solution.
#pragma once

#include <cstdint>
#include <functional>

#include "program/mGeneral.h"

namespace vestrel {

/// What a solve over regions is to look for.
struct PlateSearch {
    SkyPosition Start;             ///< J2000 starting centre, radians
    double Width = 0;              ///< field of view, radians
    double Height = 0;             ///< radians
    std::int32_t RegionLimit = 1;  ///< regions to try, the starting one included; below 1 counts
                                   ///< as 1
    double MatchTolerance = 0;     ///< largest fit error, pixels
    /// Asked about every solution: false lets the search go on.
    std::function<bool(const PlateSolution&)> Accept = {};
    /// Asked between two regions: true stops the search.
    std::function<bool()> MustEnd = {};
};

/// Solves the loaded image; the outcome is the state's `Solution`.
///
/// Removes the background (once per image), extracts the stars (smoothing once when there are
/// fewer than 12), then tries regions on a square spiral about the starting centre until the stars
/// match, `StopRequested` is seen between two regions, or the limit is used up. The region after
/// the last one counted is still read and matched, but a match there is discarded.
/// @return Solved, TooFewStars, NoMatch or Stopped
SolveCode SolvePlate(ProgramState& state, Port& port, const PlateSearch& search);

// The solve in pieces, for other ways to find the starting centre.

/// Forgets the last solve's report and a stop that was asked for.
void BeginSolve(ProgramState& state);

/// Runs a piece of a solve. When memory runs out, says so and returns `TooFewStars`; when a kernel
/// is left for a stop, `Stopped`.
SolveCode WithinMemory(ProgramState& state, Port& port, const std::function<SolveCode()>& piece);

/// Removes the background and extracts the plate stars, as `SolvePlate` does. They take the place
/// of the ones before, and of what was solved with those. False, and shown, when there are fewer
/// than 6: then all that was found before stays.
bool FindPlateStars(ProgramState& state, Port& port);

/// The search of `SolvePlate` over regions, with the plate stars that are there.
SolveCode MatchPlateStars(ProgramState& state, Port& port, const PlateSearch& search);

/// Makes a solution that of the image: shows it and stores it in the image header.
void FinishPlateSolution(ProgramState& state, Port& port, PlateSolution solution);

/// Puts the geometry of a plate into the texts of the solve window.
/// @param rms of the fit, pixels
void ShowPlateGeometry(ProgramState& state, const FitGeometry& geometry, double rms,
                       std::int32_t matched);

/// Advances a square spiral by one cell: along the border of the square of half-width `ring`, then
/// outward. From (0, 0, 0): (1, 0), (1, −1), (0, −1), (−1, −1), (−1, 0), (−1, 1), (0, 1), …
void NextSpiralCell(std::int16_t& i, std::int16_t& j, std::int16_t& ring);

}  // namespace vestrel
