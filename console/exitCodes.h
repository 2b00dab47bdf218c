// The exit codes of `vestrel-solve`, and of `vestrel` with a parameter string. Scripts rely on
// them, so their meaning never changes.
#pragma once

#include <array>
#include <string_view>

#include "program/mCommandLine.h"
#include "program/mGeneral.h"

namespace vestrel {

enum class ExitCode : int {
    Solved = 0,
    TooFewStars = 1,      ///< code 0: fewer than 6 stars in the image
    Usage = 2,            ///< bad options, "Invalid parameter string"
    NoMatch = 3,          ///< code −1: region limit reached
    Stopped = 4,          ///< code −2: Ctrl-C
    NoImage = 5,          ///< code −10: image missing, broken or unsupported
    InvalidFileName = 6,  ///< the parameter string's path has no "."
    NoCatalog = 7,        ///< code −1, because there is no catalog for this field
    NotWritten = 8,       ///< solved, but a result could not be written
    NotSure = 9           ///< code −1: there is a candidate, but it may be due to chance
};
inline constexpr std::array ExitCodes = {
    ExitCode::Solved,     ExitCode::TooFewStars, ExitCode::Usage,           ExitCode::NoMatch,
    ExitCode::Stopped,    ExitCode::NoImage,     ExitCode::InvalidFileName, ExitCode::NoCatalog,
    ExitCode::NotWritten, ExitCode::NotSure};

/// The code as the shell sees it.
inline constexpr int NumberOf(ExitCode code) {
    return static_cast<int>(code);
}

/// The meaning of a code, in a few words.
std::string_view MeaningOf(ExitCode code);

/// The exit code for the code of a solve.
ExitCode ExitCodeOf(SolveCode code, const ProgramState& state);

/// The exit code for an unattended run. Shows a message when its result file is missing.
ExitCode ExitCodeOf(const UnattendedOutcome& outcome, const ProgramState& state, Port& port);

}  // namespace vestrel
