// What the command line of `vestrel-solve` asks for.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "console/exitCodes.h"
#include "program/mCommandLine.h"
#include "program/mGeneral.h"

namespace vestrel {

struct ConsoleOptions {
    /// The six-field parameter string; the other inputs are then not used.
    std::optional<std::string> ParameterString;
    std::string Image;
    std::optional<SkyPosition> Centre;
    std::optional<std::pair<double, double>> FieldSize;  ///< width, height, radians
    std::int32_t Regions = 25;
    bool Blind = false;             ///< over the whole sky, also when the solve from a centre fails
    double TimeLimit = 20;          ///< seconds
    bool TryHarder = false;         ///< the whole search plan for a parameter string too
    std::string InfoFile;           ///< the file whose header to show; nothing else is then done
    std::string SaveFile;           ///< where the solved image goes; empty: nowhere
    std::string ExportFile;         ///< where its standard FITS copy goes; empty: nowhere
    bool WorldCoordinates = false;  ///< a .wcs file beside the image
    std::string BundleFile;         ///< where all that the solve went by goes; empty: nowhere
    bool BundlePixels = false;      ///< the picture too
    std::string ReplayFile;         ///< the bundle to solve again in place of an image
    std::filesystem::path CatalogFolder;  ///< empty: the usual one
    bool Json = false;
    bool Quiet = false;
};

/// The outcome of reading the command line: go on, or end with a code (`Solved` after --help).
struct ParsedOptions {
    std::optional<ExitCode> EndWith;
    std::string Output;  ///< for stdout when the code is `Solved`, else for stderr
};

/// Reads the command line into `options`. `parameters` holds the settings and takes what the
/// options change in them.
ParsedOptions ParseConsoleOptions(int argc, const char* const* argv, ConsoleOptions& options,
                                  SolveParameters& parameters);

}  // namespace vestrel
