// The command line of `astap`, as imaging programs use it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vestrel {

/// The options of such a command line. Invalid numbers count as not given.
struct AstapOptions {
    bool Help = false;                  ///< usage is requested, or there are no arguments
    std::string Image;                  ///< UTF-8 path; empty when none was given
    std::optional<double> Height;       ///< of the field, degrees, above 0
    std::optional<double> Ra;           ///< hours
    std::optional<double> Declination;  ///< degrees
    double Radius = 180;                ///< radius of the search, degrees; 180: the whole sky
    std::string CatalogFolder;
    std::string Output;        ///< argument of `-o`; empty: named like the image
    bool BlockHeader = false;  ///< `.wcs` file in FITS blocks, else in lines of text
    bool Log = false;
    bool Update = false;
    bool Distortion = false;
    std::string Refused;  ///< an option that requests something other than a solve
};

/// Reads the arguments after the program's name.
///
/// An option is an argument that starts with "-" and is not a negative number; its value is the
/// next argument, or stands after "=". Unknown options are ignored together with the next argument,
/// unless that is an option itself. Numbers may have a decimal comma or point.
AstapOptions ParseAstapOptions(const std::vector<std::string>& arguments);

/// What `-h` prints.
extern const char* const AstapUsage;

/// The path of a result: that of `-o`, else that of the image, with its last extension replaced.
/// @param extension with its dot
std::string AstapOutputPath(const AstapOptions& options, const std::string& extension);

}  // namespace vestrel
