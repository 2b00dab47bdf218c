// The `request-json` of a client.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "solver/solver.h"

namespace vestrel {

struct NovaRequest {
    std::string Session;
    std::string ApiKey;
    std::string Url;  ///< address of a picture elsewhere
    SolverHints Hints;
    int MostSipOrder = 3;            ///< highest order of the distortion
    std::optional<StarField> Stars;  ///< a star list instead of a picture
};

/// Reads the JSON `text`. Values of the wrong kind count as not given.
/// @return nothing, with a `fault`, when it is not a JSON object or its star list is not valid
std::optional<NovaRequest> ParseNovaRequest(std::string_view text, std::string& fault);

}  // namespace vestrel
