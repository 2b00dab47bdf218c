// The solved image as a strictly standard FITS file, for every other program.
#pragma once

#include <string>
#include <vector>

#include "image/libImage.h"

namespace vestrel {

/// The bytes of a standard FITS file (version 4.0) with the image as its file has it, before
/// anything was subtracted or smoothed, and the world coordinates of its solution.
///
/// Pixels of a FITS file are copied as they are; where its `BSCALE` is neither 1 nor 0 they become
/// 32-bit floating-point counts. SBIG images and pictures become 16-bit, or 32-bit floating-point
/// where counts leave 16 bits, with the bottom row first. Every card of the original stays as it
/// was, but for those that speak of the layout of the file, of checksums, of coordinates and of
/// older solutions; cards that break the standard are put right. `coordinateCards` are the world
/// coordinates, `moreCards` come last. The file
/// opens in Vestrel already solved, as far as its cards are not more than can be read there, and
/// scaled counts neither blank nor out of range.
///
/// @throws std::runtime_error, with a text to show, when there are no coordinates or its file can
///         no longer be read as it was
std::vector<unsigned char> FitsExportBytes(const PlateImage& image,
                                           const std::vector<std::string>& coordinateCards,
                                           const std::vector<std::string>& moreCards);

}  // namespace vestrel
