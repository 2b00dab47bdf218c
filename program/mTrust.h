// How far a result can be trusted, in a word, with the reason and what would settle the doubt.
#pragma once

#include <string>
#include <vector>

#include "display/libResiduals.h"
#include "program/mGeneral.h"

namespace vestrel {

enum class TrustLevel {
    None,     ///< there is no result
    Sure,     ///< chance does not give a match like it
    Check,    ///< sure to be a match, but something about it is odd or not measured
    Doubtful  ///< it can be chance
};

struct Trust {
    TrustLevel Level = TrustLevel::None;
    std::string Why;
    std::string Settle;  ///< what to do about it; empty when nothing is to be done
};

/// "Sure", "Check" or "Doubtful"; empty without a result.
const char* WordOf(TrustLevel level);

/// Of a solution or confidence of any picture.
Trust TrustOf(const MatchConfidence& confidence, const std::vector<std::string>& cautions);

/// Of what the window shows: the solution, or what MORA found.
Trust TrustOf(const ProgramState& state);

/// Whether the telescope may be told of the solution: asks the user when it is not sure.
bool MaySync(const ProgramState& state, Port& port);

/// Where the matched stars lie against where the solution puts them.
std::vector<Residual> ResidualsOf(const ProgramState& state);

/// The residuals in a line: how many, their median and largest, pixels and arcseconds.
std::string ResidualSummary(const ProgramState& state);

}  // namespace vestrel
