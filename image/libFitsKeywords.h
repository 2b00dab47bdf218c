// What the keywords of a FITS header mean: the field of the header record that each one fills.
#pragma once

#include <string>
#include <string_view>

#include "image/libImage.h"

namespace vestrel {

/// Parses one header card of up to 80 characters into `header`.
///
/// @param error empty when the card was good, else the message; the field is then unchanged
/// @return the card's keyword in upper case
/// @throws std::range_error when a number does not fit its field
std::string ParseHeaderCard(std::string_view card, ImageHeader& header, std::string& error);

}  // namespace vestrel
