#include "compat/libAstapOptions.h"

#include <algorithm>
#include <cmath>

#include "astro/libStrings.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

std::optional<double> NumberOf(std::string text) {
    std::replace(text.begin(), text.end(), ',', '.');
    const auto number = ParseNumber(text);
    return number && std::isfinite(*number) ? number : std::nullopt;
}

bool IsOption(const std::string& argument) {
    return argument.size() > 1 && argument[0] == '-' && !NumberOf(argument);
}

bool Lists(std::initializer_list<std::string_view> names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool TakesValue(std::string_view name) {
    return Lists(
        {"f", "fov", "ra", "spd", "r", "z", "s", "t", "m", "d", "D", "o", "speed", "sip", "check"},
        name);
}

bool StandsAlone(std::string_view name) {
    return Lists({"wcs", "log", "update", "progress", "h", "help"}, name);
}

bool AsksForMore(std::string_view name) {
    return name.starts_with("focus") || Lists({"analyse", "analyse2", "extract", "extract2",
                                               "annotate", "debug", "tofits", "sqm", "stack"},
                                              name);
}

std::optional<double> Within(std::optional<double> number, double low, double high) {
    return number && *number >= low && *number <= high ? number : std::nullopt;
}

void Take(AstapOptions& options, const std::string& name, const std::string& value) {
    constexpr double hours = 24;
    constexpr double halfCircle = 180;
    if (name == "f") {
        options.Image = value;
    } else if (name == "fov") {
        const auto height = Within(NumberOf(value), 0, 2 * halfCircle);
        options.Height = height && *height > 0 ? height : std::nullopt;
    } else if (name == "ra") {
        options.Ra = Within(NumberOf(value), 0, hours);
    } else if (name == "spd") {
        const auto distance = Within(NumberOf(value), 0, halfCircle);
        if (distance) options.Declination = *distance - halfCircle / 2;
    } else if (name == "r") {
        const auto radius = Within(NumberOf(value), 0, 2 * halfCircle);
        if (radius) options.Radius = *radius;
    } else if (name == "d") {
        options.CatalogFolder = value;
    } else if (name == "o") {
        options.Output = value;
    } else if (name == "sip") {
        options.Distortion = value != "n";
    } else if (name == "wcs") {
        options.BlockHeader = true;
    } else if (name == "log") {
        options.Log = true;
    } else if (name == "update") {
        options.Update = true;
    } else if (name == "h" || name == "help") {
        options.Help = true;
    } else if (AsksForMore(name)) {
        options.Refused = "-" + name;
    }
}

}  // namespace

AstapOptions ParseAstapOptions(const std::vector<std::string>& arguments) {
    AstapOptions options;
    options.Help = arguments.empty();
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (!IsOption(arguments[i])) continue;
        std::string name = arguments[i].substr(1);
        std::string value;
        const std::size_t equals = name.find('=');
        if (equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        } else if (!StandsAlone(name) && i + 1 < arguments.size() && !IsOption(arguments[i + 1])) {
            value = arguments[++i];
        } else if (TakesValue(name) && name != "sip") {
            continue;  // its value is missing
        }
        Take(options, name, value);
    }
    return options;
}

const char* const AstapUsage =
    "usage: astap -f IMAGE [options]\n"
    "  -fov DEGREES   height of the field; 0: unknown\n"
    "  -ra HOURS -spd DEGREES   centre; the distance from the south pole\n"
    "  -r DEGREES     radius of the search\n"
    "  -o FILE        base of the names of the results\n"
    "  -d FOLDER      a catalog of Vestrel\n"
    "  -wcs           .wcs in blocks of FITS   -sip  with distortion\n"
    "  -update        into the header of the image too, when it is a FITS file\n"
    "  -log           writes a .log file\n"
    "Solves as Vestrel does; the results are IMAGE.ini and IMAGE.wcs.\n";

std::string AstapOutputPath(const AstapOptions& options, const std::string& extension) {
    const std::string& base = options.Output.empty() ? options.Image : options.Output;
    return TextFromPath(PathFromText(base).replace_extension(extension));
}

}  // namespace vestrel
