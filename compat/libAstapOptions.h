// The command line of `astap`, as imaging programs send it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vestrel {

/// What such a command line asks for. Numbers that cannot be read count as not given.
struct AstapOptions {
    bool Help = false;                  ///< usage is asked for, or there are no arguments at all
    std::string Image;                  ///< UTF-8 path; empty: none was given
    std::optional<double> Height;       ///< of the field, degrees, above 0
    std::optional<double> Ra;           ///< hours
    std::optional<double> Declination;  ///< degrees
    double Radius = 180;                ///< of the search, degrees; 180: the whole sky
    std::string CatalogFolder;
    std::string Output;        ///< what `-o` names; empty: the image
    bool BlockHeader = false;  ///< `.wcs` in FITS blocks, else in lines of text
    bool Log = false;
    bool Update = false;
    bool Distortion = false;
    std::string Refused;  ///< an option that asks for something else than a solve
};

/// Reads the arguments after the program's name.
///
/// An option is an argument that starts with "-" and is no negative number; its value is the next
/// argument, or stands after "=". Options that are unknown are left out, with the argument after
/// them unless that is an option itself. A decimal comma is as good as a point.
AstapOptions ParseAstapOptions(const std::vector<std::string>& arguments);

/// What `-h` prints.
extern const char* const AstapUsage;

/// The path of a result: that of `-o`, else that of the image, with its last extension replaced.
/// @param extension with its dot
std::string AstapOutputPath(const AstapOptions& options, const std::string& extension);

}  // namespace vestrel
