// Just Solve: the solve that needs nothing. What the inputs and the picture say is tried first,
// then the whole sky, until a solution is sure.
#pragma once

#include <functional>
#include <string>

#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// What there is to start from: the inputs that are valid, then what the picture says, at most four
/// places; and the whole sky after them.
SearchRequest RequestForAnything(const ProgramState& state);

/// Solves the loaded image with whatever is known: first the plain search around each place and the
/// whole sky, then every other method around the places.
/// @param onAttempt told the name of each attempt; `report` has those before it
SolveCode SolveWithAnything(ProgramState& state, Port& port, double seconds, PlanReport& report,
                            const std::function<void(const std::string&)>& onAttempt = {});

/// The likeliest match of a plan that was not sure, in a line; empty when there was none.
std::string CandidateText(const PlanReport& report);

/// Solves the loaded image with whatever is known. `Display.Details` grows by a line for each stage
/// that has ended; `Display.Stage` names the one that runs.
void JustSolveCommand(ProgramState& state, Port& port);

/// The stage that runs and how much time is left at most; empty when no such search runs.
std::string StageText(const ProgramState& state);

}  // namespace vestrel
