// Writes rendered frames as standard FITS files.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libFrameRenderer.h"

namespace vestrel {

// Header cards of 80 characters in the fixed format. The text must fit and be printable ASCII.
std::string FitsTextCard(std::string_view keyword, std::string_view text,
                         std::string_view comment = {});
std::string FitsNumberCard(std::string_view keyword, double value, std::string_view comment = {});

/// The bytes of a FITS file with one image, 8-bit, 16-bit (stored less 32768, as unsigned counts
/// are) or 32-bit floating-point; the first row in the file is the bottom of the picture.
/// @param bitPix 8, 16 or −32
/// @param cards  more header cards, each of 80 characters
std::vector<unsigned char> FrameFileBytes(const Frame& frame, int bitPix,
                                          const std::vector<std::string>& cards);

}  // namespace vestrel
