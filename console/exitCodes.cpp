#include "console/exitCodes.h"

#include "platform/libPlatform.h"
#include "program/mPlateMatch.h"
#include "program/mSolveReport.h"

namespace vestrel {

int ExitCodeOf(SolveCode code, const ProgramState& state) {
    switch (code) {
        case SolveCode::Solved:
            return ExitCode::Solved;
        case SolveCode::TooFewStars:
            return ExitCode::TooFewStars;
        case SolveCode::Stopped:
            return ExitCode::Stopped;
        case SolveCode::NoImage:
            return ExitCode::NoImage;
        case SolveCode::NoMatch:
            break;
    }
    // When a centre was given as well, its search decides.
    if (state.Report.Blind && state.Report.RegionsTried == 0 && !state.Quads.Fault.empty()) {
        return ExitCode::NoCatalog;
    }
    return CatalogComplaint(state).empty() ? ExitCode::NoMatch : ExitCode::NoCatalog;
}

int ExitCodeOf(const UnattendedOutcome& outcome, const ProgramState& state, Port& port) {
    switch (outcome.End) {
        case UnattendedEnd::InvalidParameters:
            return ExitCode::Usage;
        case UnattendedEnd::InvalidFileName:
            return ExitCode::InvalidFileName;
        case UnattendedEnd::NoImage:
            return ExitCode::NoImage;
        case UnattendedEnd::Finished:
            break;
    }
    const int code = ExitCodeOf(outcome.Result.Code, state);
    if (outcome.ResultFileWritten) return code;
    port.ShowMessage("The result file " + TextFromPath(ResultFilePath(outcome.Request.Path)) +
                         " cannot be written.",
                     DefaultTitle);
    return code == ExitCode::Solved ? ExitCode::NotWritten : code;
}

}  // namespace vestrel
