// How far a result can be trusted, in one word, with the reason and what to do about a doubt.
#pragma once

#include <string>
#include <vector>

#include "display/libResiduals.h"
#include "program/mGeneral.h"

namespace vestrel {

enum class TrustLevel {
    None,     ///< there is no result
    Sure,     ///< chance does not give a match like it
    Check,    ///< surely a match, but something about it is odd or was not measured
    Doubtful  ///< it may be chance
};

struct Trust {
    TrustLevel Level = TrustLevel::None;
    std::string Why;
    std::string Settle;  ///< what to do about it; empty when nothing is to be done
};

/// "Sure", "Check" or "Doubtful"; empty without a result.
const char* WordOf(TrustLevel level);

/// The trust in a match, from its confidence and cautions.
Trust TrustOf(const MatchConfidence& confidence, const std::vector<std::string>& cautions);

/// The trust in what the window shows: the solution, or the match of MORA.
Trust TrustOf(const ProgramState& state);

/// Whether Sync may send the solution to the telescope. Asks the user when it is not sure.
bool MaySync(const ProgramState& state, Port& port);

/// The measured places of the matched stars and their places by the solution.
std::vector<Residual> ResidualsOf(const ProgramState& state);

/// The residuals in one line: their number, median and maximum, in pixels and arcseconds.
std::string ResidualSummary(const ProgramState& state);

}  // namespace vestrel
