#include "console/consoleOptions.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <system_error>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "image/libFormats.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr const char* description =
    "Finds where a photograph of the night sky points.\n"
    "\n"
    "  vestrel-solve m44.jpg --ra 08:40:24 --dec +19:40:00 --size 120x90 --regions 25\n"
    "  vestrel-solve m44.jpg\n"
    "  vestrel-solve \"2.2704,0.3431,0.0349,0.0262,25,/pictures/m44.fit\"\n"
    "\n"
    "The last form takes right ascension, declination, width, height (radians), region limit\n"
    "and path as one argument, and writes a result file (.kel) beside the image.";

constexpr const char* closing =
#ifdef _WIN32
    "The catalog is the first of --catalog, %VESTREL_CATALOG% and %ProgramData%\\Harrowdene\\KEL;\n"
    "vestrel-catalog makes one. %VESTREL_THREADS% limits the threads; %VESTREL_TRY_HARDER%=1 is\n"
    "--try-harder.";
#else
    "The catalog is the first of --catalog, $VESTREL_CATALOG, $XDG_DATA_HOME/Harrowdene/KEL and\n"
    "/var/lib/Harrowdene/KEL; vestrel-catalog makes one. $VESTREL_THREADS limits the threads;\n"
    "$VESTREL_TRY_HARDER=1 is --try-harder.";
#endif

/// All exit codes, in two columns.
std::string ExitCodeText() {
    constexpr std::size_t columnWidth = 35;
    constexpr std::size_t rows = ExitCodes.size() / 2;
    const auto entry = [](ExitCode code) {
        return "  " + std::to_string(NumberOf(code)) + "  " + std::string(MeaningOf(code));
    };
    std::string text = "Exit codes:\n";
    for (std::size_t row = 0; row < rows; ++row) {
        std::string line = entry(ExitCodes[row]);
        line.resize(std::max(line.size(), columnWidth), ' ');
        text += line + entry(ExitCodes[row + rows]) + "\n";
    }
    return text + "\n";
}

/// A parameter string is an argument with commas that is not the name of a file.
bool LooksLikeParameterString(const std::string& argument) {
    std::error_code ignored;
    return !argument.empty() && !std::filesystem::exists(PathFromText(argument), ignored) &&
           argument.find(',') != std::string::npos;
}

/// Removes a parameter string that begins with "-" (a negative right ascension) from the arguments,
/// where it would be read as an option, and returns it.
std::string TakeNegativeParameterString(std::vector<std::string>& arguments) {
    constexpr std::ptrdiff_t commas = 5;
    const bool alone = arguments.size() == 1;
    const auto found =
        std::find_if(arguments.begin(), arguments.end(), [alone](const std::string& argument) {
            return argument.starts_with('-') && !argument.starts_with("--") &&
                   LooksLikeParameterString(argument) &&
                   (alone || std::count(argument.begin(), argument.end(), ',') >= commas);
        });
    if (found == arguments.end()) return {};
    std::string taken = std::move(*found);
    arguments.erase(found);
    return taken;
}

/// Takes finite numbers from `least` to `most` only.
CLI::Validator Within(double least, double most, const char* words) {
    return {[least, most, words](const std::string& text) -> std::string {
                const auto number = ParseNumber(text);
                const bool good =
                    number && std::isfinite(*number) && *number >= least && *number <= most;
                return good ? "" : std::string("needs a number ") + words;
            },
            ""};
}

CLI::Validator Positive() {
    return Within(std::numeric_limits<double>::min(), std::numeric_limits<double>::max(),
                  "above 0");
}

/// The ranges are those of the library.
void AddParameterOptions(CLI::App& app, SolveParameters& parameters) {
    const auto add = [&app](const char* name, auto& field, const CLI::Validator& range,
                            const char* help) {
        app.add_option(name, field, help)
            ->capture_default_str()
            ->check(range)
            ->group("Extraction and matching");
    };
    add("--max-star-size", parameters.MaxStarSize, Positive(),
        "Standard deviations of the star sizes above their mean");
    add("--min-star-size", parameters.MinStarSize, Within(1, 32767, "from 1 to 32767"), "Pixels");
    add("--max-stars", parameters.MaxStars, Within(6, 1000, "from 6 to 1000"),
        "Stars of each list that take part");
    add("--detection-threshold", parameters.DetectionThreshold, Positive(),
        "Standard deviations of the sky above its mean");
    add("--max-geometric-error", parameters.MaxGeometricError, Positive(),
        "Largest departure of stretch from 1 and of skew from 0");
    add("--edge-exclusion", parameters.EdgeExclusion, Within(0, 0.4999, "from 0 to 0.4999"),
        "Border that is ignored, as a fraction of the image");
    add("--max-error", parameters.MaxError, Positive(), "Largest fit error, pixels");
    add("--match-tolerance", parameters.MatchTolerance, Positive(),
        "Difference in side ratio of triangles that still vote");
    add("--match-divisor", parameters.MatchDivisor, Positive(),
        "The larger, the fewer votes a pair of stars needs");
}

ParsedOptions UsageError(const std::string& text) {
    return {ExitCode::Usage, text + "\nRun with --help for more information.\n"};
}

/// Reads the texts of the search inputs.
std::optional<ParsedOptions> ReadSearchInputs(const std::string& ra, const std::string& dec,
                                              const std::string& size, ConsoleOptions& options) {
    if (!ra.empty() || !dec.empty()) {
        options.Centre = SkyPosition{ParseRA(ra), ParseDec(dec)};
        if (options.Centre->Ra == InvalidAngle) return UsageError("Please enter a valid RA value");
        if (options.Centre->Dec == InvalidAngle) {
            return UsageError("Please enter a valid Declination value");
        }
    }
    if (!size.empty()) {
        options.FieldSize = ParseFieldSize(size);
        if (!options.FieldSize) return UsageError("Please enter a valid Image Size");
    }
    return std::nullopt;
}

constexpr const char* wcsTakesNoName =
    "--wcs takes no name: the header goes beside the image, as IMAGE.wcs.";

}  // namespace

ParsedOptions ParseConsoleOptions(int argc, const char* const* argv, ConsoleOptions& options,
                                  SolveParameters& parameters) {
    CLI::App app(description, "vestrel-solve");
    app.allow_windows_style_options(false);  // a path may begin with "/" there too
    app.footer(ExitCodeText() + closing);
    // Finding the formats loads the decoders, which takes longer than all else before a solve.
    app.set_version_flag("--version", [] {
        return std::string("vestrel-solve ") + VESTREL_VERSION + "\nReads " + ReadableFormats();
    });
    std::string argument;
    std::string ra;
    std::string dec;
    std::string size;
    std::string catalog;
    app.add_option("image", argument,
                   "The image (see --version for the formats), or a parameter string");
    app.add_option("--ra", ra, "Approximate centre: 08:40:24 (hours) or 130.1 (degrees)");
    app.add_option("--dec", dec, "Approximate centre: +19:40:00 or 19.667 (degrees)");
    app.add_option("--size", size,
                   "Approximate field: 120x90 (arcminutes) or 2x1.5d (degrees); when left out, as "
                   "the picture says");
    app.add_option("--regions", options.Regions, "Regions to search")
        ->capture_default_str()
        ->check(Within(1, 2'000'000'000, "from 1 to 2000000000"));
    app.add_flag("--blind", options.Blind,
                 "Searches the whole sky by the quad tables (vestrel-catalog quads), also after a "
                 "centre that does not match; without a centre that is so anyway");
    const CLI::Option* const timeLimit =
        app.add_option("--time-limit", options.TimeLimit,
                       "Seconds for the whole search; the attempt that runs then ends too")
            ->capture_default_str()
            ->check(Within(0, 1e6, "from 0 to 1000000"));
    app.add_flag("--try-harder", options.TryHarder,
                 "For a parameter string too: go on after the one search that it asks for");
    app.add_option("--catalog", catalog, "Folder of the catalog");
    const CLI::Validator named(
        [](const std::string& name) -> std::string {
            return name.empty() ? "needs the name of a file" : "";
        },
        "");
    app.add_option("--info", options.InfoFile, "Print what a file's header says, and end")
        ->type_name("FILE")
        ->check(named);
    const char* outputs = "Files written when the image is solved";
    app.add_flag("--wcs", options.WorldCoordinates,
                 "World coordinates as a FITS header beside the image (.wcs)")
        ->group(outputs);
    app.add_option("--export", options.ExportFile,
                   "Standard FITS for other programs: the image with its sky background and the "
                   "solution")
        ->type_name("FILE")
        ->check(named)
        ->group(outputs);
    app.add_option("--save", options.SaveFile,
                   "Vestrel's own FITS file, without the sky background; opens again solved. Other "
                   "programs may show it black: --export is for them")
        ->type_name("FILE")
        ->check(named)
        ->group(outputs);
    const char* bundles = "To show others why a picture is not solved";
    app.add_option("--bundle", options.BundleFile,
                   "A zip with all that the solve went by, but for the pixels: settings, hints, "
                   "header, star lists, catalog cells")
        ->type_name("FILE")
        ->check(named)
        ->group(bundles);
    app.add_flag("--bundle-pixels", options.BundlePixels, "The picture goes into the bundle too")
        ->group(bundles);
    app.add_option("--replay", options.ReplayFile,
                   "Solve what a bundle holds again, and compare the outcome")
        ->type_name("FILE")
        ->check(named)
        ->group(bundles);
    app.add_flag("--json", options.Json, "Print the result as JSON");
    app.add_flag("--quiet", options.Quiet, "No progress, and no explanation of failures");
    AddParameterOptions(app, parameters);

    std::vector<std::string> arguments(argv + 1, argv + argc);
    std::string negative = TakeNegativeParameterString(arguments);
    for (const std::string& given : arguments) {
        if (given.rfind("--wcs=", 0) == 0) return UsageError(wcsTakesNoName);
        // The next argument would be taken for the value.
        if (given.starts_with("--") && given.find('=') == given.size() - 1) {
            return UsageError(given + " has no value.");
        }
    }
    try {
        std::reverse(arguments.begin(), arguments.end());  // CLI11 takes them from the end
        app.parse(std::move(arguments));
    } catch (const CLI::ExtrasError& error) {
        const bool maybeName = options.WorldCoordinates;
        return UsageError(error.what() + (maybeName ? std::string("\n") + wcsTakesNoName : ""));
    } catch (const CLI::ParseError& end) {
        std::ostringstream out;
        std::ostringstream errors;
        const int code = app.exit(end, out, errors);
        if (code == 0) return {ExitCode::Solved, out.str()};
        return {ExitCode::Usage, errors.str()};
    }
    options.TimeLimitGiven = timeLimit->count() > 0;
    if (!options.InfoFile.empty() && options.Json) {
        return UsageError("--info prints text: it goes without --json.");
    }
    if (!options.InfoFile.empty()) return {};
    if (argument.empty()) argument = std::move(negative);
    options.CatalogFolder = PathFromText(catalog);
    if (options.Blind && LooksLikeParameterString(argument)) {
        return UsageError("A parameter string has a centre: it goes without --blind.");
    }
    if (const char* harder = std::getenv("VESTREL_TRY_HARDER")) {
        options.TryHarder = options.TryHarder || std::string_view(harder) == "1";
    }
    const bool anySearchInput = !ra.empty() || !dec.empty() || !size.empty() || options.Blind;
    if (!anySearchInput && LooksLikeParameterString(argument)) {
        if (!options.BundleFile.empty() || !options.ReplayFile.empty()) {
            return UsageError("A parameter string goes without bundles: give options instead.");
        }
        options.ParameterString = argument;
        return {};
    }
    if (!options.ReplayFile.empty()) {
        const bool others = !argument.empty() || anySearchInput || options.WorldCoordinates ||
                            !options.ExportFile.empty() || !options.SaveFile.empty() ||
                            !options.BundleFile.empty();
        if (others) return UsageError("--replay takes all it needs from the bundle.");
        return {};
    }
    if (options.BundlePixels && options.BundleFile.empty()) {
        return UsageError("--bundle-pixels goes with --bundle.");
    }
    if (argument.empty()) return UsageError("Name an image.");
    options.Image = argument;
    if (auto error = ReadSearchInputs(ra, dec, size, options)) return *error;
    return {};
}

}  // namespace vestrel
