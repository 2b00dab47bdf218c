// Numbers as C's printf writes them, whatever the locale.
#pragma once

#include <string>

namespace vestrel {

/// "%.Ng": so many significant digits, the exponent form for very large and very small numbers.
std::string GeneralText(double value, int digits);

/// "%.Nf": so many decimals.
std::string FixedText(double value, int decimals);

/// "% .16E" with three digits of exponent: " 6.4050000000000000E+002", the form of `.ini` files.
std::string LongScientificText(double value);

}  // namespace vestrel
