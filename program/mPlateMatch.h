// The plain solve: from the loaded image and an approximate centre to a plate solution.
#pragma once

#include <cstdint>
#include <functional>

#include "catalog/libCatalogRegion.h"
#include "program/mGeneral.h"

namespace vestrel {

/// The search area and limits of a solve over regions.
struct PlateSearch {
    SkyPosition Start;             ///< J2000 starting centre, radians
    double Width = 0;              ///< field of view, radians
    double Height = 0;             ///< radians
    std::int32_t RegionLimit = 1;  ///< regions to try, including the starting one; below 1 counts
                                   ///< as 1
    double MatchTolerance = 0;     ///< largest fit error, as in `AlignImages`
    /// Called with every solution; false continues the search.
    std::function<bool(const PlateSolution&)> Accept = {};
    /// Called between two regions; true stops the search.
    std::function<bool()> MustEnd = {};
    /// The cache may hold stars of the far hemisphere from solves before this one.
    SkySides Sides = SkySides::Both;
    /// The regions of the searches of this picture before this one, which are charged with its own.
    double TriedBefore = 0;
};

/// The parameters that the matcher needs.
AlignSettings AlignSettingsOf(const SolveParameters& parameters);

/// Solves the loaded image; the outcome is the state's `Solution`.
///
/// Removes the background (once per image), extracts the stars (smoothing once when there are fewer
/// than 12), then tries regions on a square spiral about the starting centre until the stars match,
/// `StopRequested` is seen between two regions, or the limit is used up. One region beyond the
/// limit is still read and matched, but a match there is discarded.
/// @return Solved, TooFewStars, NoMatch or Stopped
SolveCode SolvePlate(ProgramState& state, Port& port, const PlateSearch& search);

// The steps of a solve, for searches that find the starting centre in other ways.

/// Resets the report of the last solve and the stop request.
void BeginSolve(ProgramState& state);

/// Runs a part of a solve. When memory runs out, it shows that and returns `TooFewStars`; when a
/// kernel is aborted by a stop, it returns `Stopped`.
SolveCode WithinMemory(ProgramState& state, Port& port, const std::function<SolveCode()>& piece);

/// Removes the background and extracts the plate stars, as `SolvePlate` does. They replace the
/// earlier stars and drop the solution. Fewer than 6 stars are reported: the result is then false,
/// and the earlier stars and solution stay.
bool FindPlateStars(ProgramState& state, Port& port);

/// The search of `SolvePlate` over regions, with the present plate stars.
SolveCode MatchPlateStars(ProgramState& state, Port& port, const PlateSearch& search);

/// Makes `solution` the solution of the image, shows it and stores it in the image header.
void FinishPlateSolution(ProgramState& state, Port& port, PlateSolution solution);

/// Call when a search has ended with a solution. Makes the sky model of a wide field, which tells
/// its centre better than the plate. Without a model its positions are rough, and all that tells of
/// the solution must say so.
void MeasureWideField(ProgramState& state, Port& port);

/// Shows the geometry of a plate in the texts of the solve window.
/// @param rms of the fit, pixels
void ShowPlateGeometry(ProgramState& state, const FitGeometry& geometry, double rms,
                       std::int32_t matched);

/// Advances a square spiral by one cell: along the border of the square of half-width `ring`, then
/// outward. From (0, 0, 0): (1, 0), (1, −1), (0, −1), (−1, −1), (−1, 0), (−1, 1), (0, 1), …
void NextSpiralCell(std::int16_t& i, std::int16_t& j, std::int16_t& ring);

}  // namespace vestrel
