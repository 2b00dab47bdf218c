// Just Solve: solves without any input. It tries what the inputs and the picture say, then the
// whole sky, until a solution is sure.
#pragma once

#include <functional>
#include <string>

#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// The request from everything known: the valid inputs, then the hints of the picture, at most four
/// centres in all, and the whole sky after them.
SearchRequest RequestForAnything(const ProgramState& state);

/// Solves the loaded image with everything known: first the plain search around each centre and the
/// whole sky, then all other methods around the centres.
/// @param seconds time limit
/// @param onAttempt receives the name of each attempt; `report` has the earlier ones
SolveCode SolveWithAnything(ProgramState& state, Port& port, double seconds, PlanReport& report,
                            const std::function<void(const std::string&)>& onAttempt = {});

/// One line about the likeliest match of a plan without a sure one; empty when there was no match.
std::string CandidateText(const PlanReport& report);

/// The Just Solve command. `Display.Details` gets a line for each finished stage; `Display.Stage`
/// names the running one.
void JustSolveCommand(ProgramState& state, Port& port);

/// The running stage and the time that is left at most; empty when no such search runs.
std::string StageText(const ProgramState& state);

}  // namespace vestrel
