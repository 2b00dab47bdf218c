// Header cards from the description texts in pictures.
#pragma once

#include <string_view>

#include "image/libDecoder.h"

namespace vestrel {

/// Passes a description on as cards. A FITS header that is kept as text gives its cards, a JSON
/// object its members whose names could be keywords, and any other text COMMENT cards. Only the
/// first MiB counts.
void PassDescription(std::string_view text, CardSink& sink);

/// Passes on a text that has a name: as the card of that keyword when the name can be one, else as
/// a description.
void PassNamedText(std::string_view name, std::string_view text, CardSink& sink);

}  // namespace vestrel
