// From what a solve left in the program state to what a `Solver` hands out.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "image/libWorldCoordinates.h"
#include "program/mSearchPlan.h"
#include "program/mSkyModel.h"
#include "solver/solver.h"

namespace vestrel {

/// What a picture's file says, when it is open.
void DescribePicture(const PlateImage& image, PictureFacts& facts);

/// The coordinates of a model of the loaded image, rows as asked for.
SolverCoordinates CoordinatesOf(const SkyModel& model, const PlateImage& image, RowOrder rows);

/// A model whose distortion has no terms above an order, closest to the given one over the image;
/// the model itself when it has none, or when there is no such model.
SkyModel WithSipOrder(const SkyModel& model, int mostOrder);

/// The stars of the image, brightest first, rows as stored.
std::vector<SolverStar> StarsOfPicture(const ProgramState& state);

/// The solution of the image, which there must be.
SolvedField FieldOf(const ProgramState& state, const std::optional<ImageSkyModel>& model);

/// How a solve that ended with this code ended, why, and what to try next.
/// @param stopped by the user; else a `Stopped` solve ran out of time
void ExplainEnd(const ProgramState& state, SolveCode code, const PlanReport& plan, bool stopped,
                SolverOutcome& outcome);

/// Adds why the loaded image was not solved, as far as its pixels tell.
void ExplainCause(ProgramState& state, Port& port, SolveCode code, const SearchRequest& request,
                  SolverOutcome& outcome);

}  // namespace vestrel
