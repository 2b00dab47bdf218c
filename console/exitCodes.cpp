#include "console/exitCodes.h"

#include "platform/libPlatform.h"
#include "program/mPlateMatch.h"
#include "program/mSolveReport.h"

namespace vestrel {

std::string_view MeaningOf(ExitCode code) {
    switch (code) {
        case ExitCode::Solved:
            return "solved";
        case ExitCode::TooFewStars:
            return "fewer than 6 stars";
        case ExitCode::Usage:
            return "wrong use of the command line";
        case ExitCode::NoMatch:
            return "no match";
        case ExitCode::Stopped:
            return "stopped by the user";
        case ExitCode::NoImage:
            return "the image cannot be read";
        case ExitCode::InvalidFileName:
            return "the parameter string's path has no \".\"";
        case ExitCode::NoCatalog:
            return "no match, as there is no catalog for this field";
        case ExitCode::NotWritten:
            return "solved, but the result could not be written";
        case ExitCode::NotSure:
            return "not sure: only a candidate was found";
    }
    return {};
}

ExitCode ExitCodeOf(SolveCode code, const ProgramState& state) {
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
    return LackOfCatalog(state).empty() ? ExitCode::NoMatch : ExitCode::NoCatalog;
}

ExitCode ExitCodeOf(const UnattendedOutcome& outcome, const ProgramState& state, Port& port) {
    switch (outcome.End) {
        case UnattendedEnd::InvalidParameters:
            return ExitCode::Usage;
        case UnattendedEnd::InvalidFileName:
            return ExitCode::InvalidFileName;
        case UnattendedEnd::OldResultStays:
            return ExitCode::Usage;
        case UnattendedEnd::NoImage:
            return ExitCode::NoImage;
        case UnattendedEnd::Finished:
            break;
    }
    const ExitCode code = ExitCodeOf(outcome.Result.Code, state);
    if (outcome.ResultFileWritten) return code;
    port.ShowMessage("The result file " + TextFromPath(ResultFilePath(outcome.Request.Path)) +
                         " cannot be written: " + outcome.WriteFault + ".",
                     DefaultTitle);
    return code == ExitCode::Solved ? ExitCode::NotWritten : code;
}

}  // namespace vestrel
