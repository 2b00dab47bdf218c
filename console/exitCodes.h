// The exit codes of `vestrel-solve`, and of `vestrel` with a parameter string. Scripts rely on
// them: they never change their meaning.
#pragma once

#include <cstdint>

#include "program/mCommandLine.h"
#include "program/mGeneral.h"

namespace vestrel::ExitCode {

inline constexpr int Solved = 0;
inline constexpr int TooFewStars = 1;      ///< code 0: fewer than 6 stars in the image
inline constexpr int Usage = 2;            ///< bad options, "Invalid parameter string"
inline constexpr int NoMatch = 3;          ///< code −1: region limit reached
inline constexpr int Stopped = 4;          ///< code −2: Ctrl-C
inline constexpr int NoImage = 5;          ///< code −10: image missing, broken or unsupported
inline constexpr int InvalidFileName = 6;  ///< the parameter string's path has no "."
inline constexpr int NoCatalog = 7;   ///< code −1, because there is no catalog for this field
inline constexpr int NotWritten = 8;  ///< solved, but a result could not be written
inline constexpr int NotSure = 9;  ///< code −1: there is a candidate that chance may have given

}  // namespace vestrel::ExitCode

namespace vestrel {

/// The exit code for the code of a solve.
int ExitCodeOf(SolveCode code, const ProgramState& state);

/// The exit code for an unattended run. Shows a message when its result file is missing.
int ExitCodeOf(const UnattendedOutcome& outcome, const ProgramState& state, Port& port);

}  // namespace vestrel
