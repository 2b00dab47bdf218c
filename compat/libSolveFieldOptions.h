// The command line of `solve-field`, as imaging programs use it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "astro/libSphericalMath.h"

namespace vestrel {

enum class ScaleUnit { DegreesWidth, ArcminutesWidth, ArcsecondsPerPixel, FocalLength35mm };

/// The options of such a command line. An output named "none" is not written, and an empty one gets
/// its usual name.
struct SolveFieldOptions {
    bool Help = false;
    bool Version = false;
    std::string Fault;                ///< what is wrong with the command line; empty when nothing
                                      ///< is
    std::vector<std::string> Inputs;  ///< UTF-8 paths
    std::optional<double> ScaleLow;   ///< above 0, in `Unit`
    std::optional<double> ScaleHigh;
    ScaleUnit Unit = ScaleUnit::DegreesWidth;
    std::optional<SkyPosition> Centre;  ///< radians
    double Radius = 0;                  ///< degrees; 0: not given
    int Parity = 0;                     ///< +1, −1, or 0 for either
    double TimeLimit = 0;               ///< seconds; 0: not given
    std::string Cancel;                 ///< a file whose appearance ends the search
    std::string Solved;
    std::string Wcs;
    std::string NewFits;
    std::string Base;
    std::string Folder;
    bool CentreIsReference = false;
    int TweakOrder = -1;  ///< highest order of the distortion, 0 for none; −1: not given
    bool Overwrite = false;
    bool SkipSolved = false;
    bool Continue = false;
    int Width = 0;  ///< of the field of a star table, pixels; 0: not given
    int Height = 0;
    std::string XColumn;
    std::string YColumn;
    std::string SortColumn;
    bool SortAscending = false;
};

/// Reads the arguments after the program's name like getopt_long of the GNU C library: options and
/// files in any order, "--name value" and "--name=value", abbreviated names as long as they are
/// unique, joined letters, and "--" before arguments that are only files.
SolveFieldOptions ParseSolveFieldOptions(const std::vector<std::string>& arguments);

/// What `--help` prints.
extern const char* const SolveFieldUsage;

/// The path of a result: `named` unless it is empty, else the input's path with its last extension
/// replaced; the base name and folder of the options apply. Empty for "none".
/// @param extension with its dot
std::string SolveFieldOutputPath(const SolveFieldOptions& options, const std::string& input,
                                 const std::string& named, const std::string& extension);

}  // namespace vestrel
