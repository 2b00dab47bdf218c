// From hints to what the search plan is asked for.
#pragma once

#include <string>
#include <vector>

#include "program/mSearchPlan.h"
#include "solver/solver.h"

namespace vestrel {

/// @throws std::invalid_argument for a setting or hint outside its range
void RequireValid(const SolverSettings& settings);
void RequireValid(const SolverHints& hints);

/// The settings as the program's parameters, and back.
void TakeSettings(const SolverSettings& settings, SolveParameters& parameters);
SolverSettings SettingsOf(const SolveParameters& parameters);

/// What to search for, and for each of its places the header cards that gave it.
struct HintedRequest {
    SearchRequest Search;
    std::vector<std::string> Sources;
};

/// Fills what the hints leave open with those of the loaded image's header, if that is wished.
HintedRequest RequestFor(const SolverHints& hints, const PlateImage& image);

}  // namespace vestrel
