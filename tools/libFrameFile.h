// Writes rendered frames as standard FITS files.
#pragma once

#include <string>
#include <vector>

#include "tools/libFrameRenderer.h"

namespace vestrel {

/// The bytes of a FITS file with one image, 8-bit, 16-bit (stored minus 32768, as is usual for
/// unsigned counts) or 32-bit floating-point; the first row in the file is the bottom of the
/// picture.
/// @param bitPix 8, 16 or −32
/// @param cards  more header cards, each of 80 characters
std::vector<unsigned char> FrameFileBytes(const Frame& frame, int bitPix,
                                          const std::vector<std::string>& cards);

}  // namespace vestrel
