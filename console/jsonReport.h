// The result of a run as JSON.
#pragma once

#include <nlohmann/json.hpp>

#include "console/solveRun.h"

namespace vestrel {

/// All that `vestrel-solve --json` prints. Angles are in degrees unless their names say otherwise;
/// texts may hold bytes that are not UTF-8.
nlohmann::ordered_json JsonReport(const ProgramState& state, const RunOutcome& outcome);

}  // namespace vestrel
