// What a client asks for in its `request-json`.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "solver/solver.h"

namespace vestrel {

struct NovaRequest {
    std::string Session;
    std::string ApiKey;
    std::string Url;  ///< of a picture somewhere else
    SolverHints Hints;
    int MostSipOrder = 3;            ///< of the distortion
    std::optional<StarField> Stars;  ///< a list in place of a picture
};

/// Reads the JSON text. Values of the wrong kind count as not given.
/// @return nothing with a `fault` for what is no JSON object, and for lists of stars that are none
std::optional<NovaRequest> ParseNovaRequest(std::string_view json, std::string& fault);

}  // namespace vestrel
