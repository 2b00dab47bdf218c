// Reads the primary image of a FITS file: 8-bit, 16-bit or 32-bit floating-point, two axes.
#pragma once

#include <cstdint>
#include <filesystem>

#include "astro/libParallel.h"
#include "image/libImage.h"

namespace vestrel {

/// Reads a whole FITS file into `image`.
///
/// Rows of 8- and 16-bit pixels keep the order of the file; floating-point images are turned upside
/// down. `BSCALE` is not applied. Counts below 0 become 0; floating-point counts above 65535 become
/// 65535. Missing pixel data count as zero bytes. When zero bytes are not stored as 0 (with `BZERO`
/// below 0, or above 65535 for floating-point pixels), a file that lacks nearly all of its pixels
/// is refused, since they would cost memory.
///
/// @param progress receives the pieces done
/// @param failure  what to show when the result is false
/// @return true when the whole image was read. After false, `image` holds what had been set
///         before the failure and is not to be used.
bool ReadFitsFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                  ReadFailure& failure);

/// Whether rows here and there of a file say that it is a 32-bit floating-point image of two axes
/// whose pixels lie within 0..2 and are not all whole: no counts, and `ReadFitsFile` would make it
/// black. False for anything but a regular file.
bool MayHoldFractions(const std::filesystem::path& path);

/// The number in four bytes in file order: big-endian IEEE 754 single precision without its special
/// cases. A stored zero gives about 5.9E-39, the all-ones exponent a huge number.
double DecodeFloat32(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3);

}  // namespace vestrel
