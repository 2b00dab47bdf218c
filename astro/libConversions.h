// Angles to and from the sexagesimal text that observers read and type.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace vestrel {

/// What the parsers return for a text that is not a valid angle.
inline constexpr double InvalidAngle = -1.0E30;

/// The degree sign in the program's text encoding (UTF-8).
inline constexpr const char* DegreeSign = "\xC2\xB0";

/// Right ascension as text: "05h32m7.5s" with `letters`, else "05 32 7.5".
///
/// Hours and minutes have two digits; seconds are padded by the length of their text, so a
/// fraction is never padded ("7.5", not "07.5"), and trailing zeros are left out. 24 hours wrap.
/// @param ra radians, any finite value
/// @param decimals of the seconds, 0..15
std::string FormatRA(double ra, bool letters, int decimals);

/// Declination as text: `-00° 30' 00"` with `symbols`, else "-00 30 00". No sign when positive.
/// @param dec radians, any finite value
/// @param decimals of the arcseconds, 0..15
std::string FormatDec(double dec, bool symbols, int decimals);

/// Reads a right ascension: "5h32m7.5s", "5:32:7.5", "5 32 7.5", or a plain number of *degrees*.
/// @return radians in 0..2π (both ends included), or `InvalidAngle`
double ParseRA(std::string_view text);

/// Reads a declination: `-0°30'10"`, "-0:30:10", "-0 30 10", "45d30m", or plain degrees. A minus
/// sign on any part counts, and two cancel: "-10 -30 00" is +10.5 degrees.
/// @return radians in −π/2..π/2 (both ends included), or `InvalidAngle`
double ParseDec(std::string_view text);

/// Reads a field size such as "120x90" (arcminutes), "2x1.5d" or "2°×1.5°" (degrees), "2dx90m".
/// When only the second side has a unit, it counts for both.
/// @return width and height in radians, each above 0 and at most 2π; nothing for any other text
std::optional<std::pair<double, double>> ParseFieldSize(std::string_view text);

}  // namespace vestrel
