// Texts from callers: the parameter string, paths, angles and field sizes.

#include <charconv>
#include <cmath>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "fuzz/fuzzSupport.h"
#include "program/mCommandLine.h"
#include "program/mImageData.h"

namespace vestrel {
namespace {

/// A text that is read back as exactly this number.
std::string Exactly(double number) {
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

void CheckParameters(const std::string& text) {
    const auto request = ParseParameterString(text);
    if (!request) return;
    const UnattendedRequest& r = *request;
    for (const double number : {r.Start.Ra, r.Start.Dec, r.Width, r.Height}) {
        Require(std::isfinite(number), "the numbers are finite");
    }
    Require(Trim(r.Path) == r.Path && text.find(r.Path) != std::string::npos,
            "the path is part of the text");
    const auto again = ParseParameterString(Exactly(r.Start.Ra) + "," + Exactly(r.Start.Dec) + "," +
                                            Exactly(r.Width) + "," + Exactly(r.Height) + "," +
                                            std::to_string(r.RegionLimit) + "," + r.Path);
    Require(again && again->Start.Ra == r.Start.Ra && again->Start.Dec == r.Start.Dec &&
                again->Width == r.Width && again->Height == r.Height &&
                again->RegionLimit == r.RegionLimit && again->Path == r.Path,
            "parsing again changes nothing");
    ProgramState state;
    RecordingPort port(state);
    ShowStartingValues(state, port, r, " X ");
    Require(ShortenedPath(r.Path).size() <= r.Path.size() + 1, "a shortened path is no longer");
}

void CheckResultFile(const std::string& path) {
    const std::string result = ResultFilePath(path).string();
    Require(result.ends_with(".kel"), "a result file is known by its name");
    Require(ResultFilePath(result).string() == result, "a result file's own is itself");
    const std::string stem = path.substr(0, path.rfind('.'));
    Require(result == stem + ".kel", "the result lies beside its image");
}

/// A text that can be read can be formatted and read again, equal to the last decimal shown.
void CheckAngles(std::string_view text) {
    constexpr double tolerance = 1e-9;
    const double ra = ParseRA(text);
    if (ra != InvalidAngle) {
        Require(ra >= 0 && ra <= TwoPi, "right ascensions lie in their range");
        const double away = std::fabs(ParseRA(FormatRA(ra, true, 6)) - ra);
        Require(away < tolerance || std::fabs(away - TwoPi) < tolerance, "hours survive");
    }
    const double dec = ParseDec(text);
    if (dec != InvalidAngle) {
        Require(std::fabs(dec) <= Pi / 2, "declinations lie in their range");
        Require(std::fabs(ParseDec(FormatDec(dec, true, 6)) - dec) < tolerance, "degrees survive");
    }
    if (const auto field = ParseFieldSize(text)) {
        Require(field->first > 0 && field->first <= TwoPi && field->second > 0 &&
                    field->second <= TwoPi,
                "fields are no larger than the sky");
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    const std::string text(TextOf(data, size));
    CheckParameters(text);
    CheckResultFile(text);
    CheckAngles(text);
    return 0;
}
