// Formats numbers like C's printf, independently of the locale.
#pragma once

#include <string>

namespace vestrel {

/// As "%.Ng": N significant digits, with the exponent form for very large and very small numbers.
std::string GeneralText(double value, int digits);

/// As "%.Nf": N decimals.
std::string FixedText(double value, int decimals);

/// "% .16E" with three digits of exponent: " 6.4050000000000000E+002", the form of `.ini` files.
std::string LongScientificText(double value);

}  // namespace vestrel
