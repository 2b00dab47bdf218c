// A run of `vestrel-solve`: from its options to how it ended.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "console/consoleOptions.h"
#include "console/exitCodes.h"
#include "program/mBundle.h"
#include "program/mCommandLine.h"
#include "program/mFailureCause.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// How a run ended.
struct RunOutcome {
    PlanReport Plan;
    ExitCode Exit = ExitCode::Usage;
    SolveResult Result;
    bool Attempted = false;  ///< an image was read and a solve ran
    std::string Image;
    std::optional<FailureCause> Cause;  ///< of a failure
    std::shared_ptr<Bundle> Replayed;   ///< keeps the catalog cells that the state points to
    bool SameOutcome = false;           ///< whether the outcome equals that of the bundle
    bool BundleWritten = true;
    std::string StartedFrom;  ///< the cards that gave the start; empty when the user gave it
    double Seconds = 0;
};

/// Solves the image of a parameter string and writes its result file.
RunOutcome SolveParameterString(ProgramState& state, Port& port, const ConsoleOptions& options);

/// Solves an image by the plan, with what the options and the picture say about it.
RunOutcome SolveImage(ProgramState& state, Port& port, const ConsoleOptions& options);

/// Repeats the solve in a bundle.
RunOutcome SolveBundle(ProgramState& state, Port& port, const ConsoleOptions& options);

/// Describes two files of a run that are the same file; empty when there are none.
std::string CoincidingFiles(const ConsoleOptions& options);

/// Writes the requested files. The export reads the image's file again.
/// @return whether all were written
bool WriteOutputs(ProgramState& state, Port& port, const ConsoleOptions& options);

}  // namespace vestrel
