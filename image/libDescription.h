// Cards out of the texts that pictures carry.
#pragma once

#include <string_view>

#include "image/libDecoder.h"

namespace vestrel {

/// Hands on what a description says: the cards of a FITS header kept as text, the members of a JSON
/// object whose names could be keywords, else the lines as COMMENT cards.
void PassDescription(std::string_view text, CardSink& sink);

}  // namespace vestrel
