// Converts the program state after a solve to the results of a `Solver`.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "image/libWorldCoordinates.h"
#include "program/mSearchPlan.h"
#include "program/mSkyModel.h"
#include "solver/solver.h"

namespace vestrel {

/// Sets the facts about an opened picture.
void DescribePicture(const PlateImage& image, PictureFacts& facts);

/// The coordinates of a model of the loaded image, with the given order of rows.
SolverCoordinates CoordinatesOf(const SkyModel& model, const PlateImage& image, RowOrder rows);

/// The model whose distortion has no terms above an order and which is closest to the given one
/// over the image. The given model itself when it has no such terms, or when the fit fails.
SkyModel WithSipOrder(const SkyModel& model, int mostOrder);

/// The stars of the image, brightest first, rows as stored.
std::vector<SolverStar> StarsOfPicture(const ProgramState& state);

/// The solution of the image. There must be one.
SolvedField FieldOf(const ProgramState& state, const std::optional<ImageSkyModel>& model);

/// Sets how a solve ended, why, and what to try next.
/// @param stopped whether the user stopped it; otherwise a `Stopped` solve ran out of time
void ExplainEnd(const ProgramState& state, SolveCode code, const PlanReport& plan, bool stopped,
                SolverOutcome& outcome);

/// Adds why the loaded image was not solved, if its pixels show it.
void ExplainCause(ProgramState& state, Port& port, SolveCode code, const SearchRequest& request,
                  const PlanReport& plan, SolverOutcome& outcome);

}  // namespace vestrel
