// The loaded image's header as lines of text, for the header window and the console.
#pragma once

#include <string>
#include <vector>

#include "image/libImage.h"

namespace vestrel {

/// A summary of the header, a rule, then the header's own lines, of which those beyond the 299th
/// are left out. A JPEG picture has only the lines that its camera wrote, often none.
std::vector<std::string> HeaderLines(const PlateImage& image);

}  // namespace vestrel
