// Exports the solved image as a strictly standard FITS file for other programs.
#pragma once

#include <string>
#include <vector>

#include "image/libImage.h"

namespace vestrel {

/// The bytes of a standard FITS file (version 4.0). It holds the image as its own file has it,
/// before background subtraction and smoothing, and the world coordinates of its solution.
///
/// Pixels of a FITS file are copied as they are; when `BSCALE` is neither 1 nor 0, they become
/// 32-bit floating-point counts. SBIG images and pictures become 16-bit pixels, or 32-bit
/// floating-point ones when counts do not fit 16 bits, with the bottom row first. Every card of the
/// original stays, except those about the layout of the file, checksums, coordinates and older
/// solutions; cards that break the standard are repaired. `coordinateCards` hold the world
/// coordinates, `moreCards` come last.
///
/// The file opens in Vestrel already solved, unless it has more cards than Vestrel reads, or its
/// scaled counts are blank or out of range.
///
/// @param apart as for `ReadImageFile`: pictures are read again
/// @throws std::runtime_error, with a text for the user, when there are no coordinates or the
///         image's file has changed
std::vector<unsigned char> FitsExportBytes(const PlateImage& image,
                                           const std::vector<std::string>& coordinateCards,
                                           const std::vector<std::string>& moreCards,
                                           bool apart = false);

}  // namespace vestrel
