// Positions as people copy them from web pages, papers and other programs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "astro/libSphericalMath.h"

namespace vestrel {

/// The text of an angle with the signs that this program reads: minus signs, dashes, primes,
/// quotes, degree signs and blanks of all kinds become -, ', ", ° and a blank, and the ends are
/// trimmed.
std::string PlainAngleText(std::string_view utf8);

/// Reads a J2000 position: right ascension and declination in any form that `ParseRA` and
/// `ParseDec` take, with a comma, a semicolon, a sign or blanks between, and captions such as "RA",
/// "Dec", "J2000", "α =". "05:34:31.9 +22:00:52", "5h34m32s, −22°0′52″", "83.63 22.01", "RA 05 34
/// 32 Dec 22 00 52".
/// @return radians; nothing when the text is no position, has several readings, or is longer than
///   200 bytes
std::optional<SkyPosition> ParsePosition(std::string_view utf8);

/// Whether a text that reads as a position can be a slip in one coordinate: "40,5", "83 22",
/// "02 42 04 2".
bool MayBeOneCoordinate(std::string_view utf8);

}  // namespace vestrel
