// What the command line of `vestrel-solve` asks for.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/mCommandLine.h"
#include "app/mGeneral.h"

namespace vestrel {

struct ConsoleOptions {
    /// The six-field parameter string; the other inputs are then not used.
    std::optional<std::string> ParameterString;
    std::string Image;
    std::optional<SkyPosition> Centre;
    std::optional<std::pair<double, double>> FieldSize;  ///< width, height, radians
    std::int32_t Regions = 25;
    std::filesystem::path CatalogFolder;  ///< empty: the usual one
    bool Json = false;
    bool Quiet = false;
};

/// The outcome of reading the command line: go on, or end with a code (0 after --help).
struct ParsedOptions {
    std::optional<int> EndWith;
    std::string Output;  ///< for stdout when the code is 0, else for stderr
};

/// Reads the command line into `options`. `parameters` holds the settings and takes what the
/// options change in them.
ParsedOptions ParseConsoleOptions(int argc, const char* const* argv, ConsoleOptions& options,
                                  SolveParameters& parameters);

/// A field size such as "120x90" (arcminutes), "2x1.5d" (degrees), "2dx90m"; radians. A unit at
/// the end counts for both sides when the first has none. Nothing when it is not one.
std::optional<std::pair<double, double>> ParseFieldSize(std::string_view text);

}  // namespace vestrel
