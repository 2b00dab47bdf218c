// The options of `vestrel-solve`.
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
    /// The parameter string of six fields; the other inputs are unused when it is given.
    std::optional<std::string> ParameterString;
    std::string Image;
    std::optional<SkyPosition> Centre;
    std::optional<std::pair<double, double>> FieldSize;  ///< width, height, radians
    std::int32_t Regions = UsualRegions;
    bool Blind = false;                 ///< search the whole sky, also when the solve from a centre
                                        ///< fails
    double TimeLimit = UsualTimeLimit;  ///< seconds
    bool TimeLimitGiven = false;        ///< by the user, so that it holds for a bundle too
    bool TryHarder = false;             ///< use the whole search plan for a parameter string too
    std::string InfoFile;               ///< a file whose header to show; then nothing else is done
    std::string SaveFile;               ///< where to save the solved image; empty: nowhere
    std::string ExportFile;             ///< where to export its standard FITS copy; empty: nowhere
    bool WorldCoordinates = false;      ///< write a .wcs file beside the image
    std::string BundleFile;             ///< where to write the bundle of the solve; empty: nowhere
    bool BundlePixels = false;          ///< include the picture in the bundle
    std::string ReplayFile;             ///< a bundle to solve again instead of an image
    std::filesystem::path CatalogFolder;  ///< empty: the default one
    bool Json = false;
    bool Quiet = false;
};

/// The outcome of reading the command line: continue, or end with a code (`Solved` after --help).
struct ParsedOptions {
    std::optional<ExitCode> EndWith;
    std::string Output;  ///< for stdout when the code is `Solved`, else for stderr
};

/// Reads the command line into `options`. `parameters` holds the settings and receives the changes
/// that the options make.
ParsedOptions ParseConsoleOptions(int argc, const char* const* argv, ConsoleOptions& options,
                                  SolveParameters& parameters);

}  // namespace vestrel
