// Reads the primary image of a FITS file: 8-bit, 16-bit or 32-bit floating-point, two axes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "astro/libParallel.h"
#include "image/libImage.h"

namespace vestrel {

/// Reads a whole FITS file into `image`.
///
/// Rows keep the order of the file for 8- and 16-bit pixels; floating-point images alone are
/// turned upside down. `BSCALE` is not applied. Counts below 0 become 0; floating-point counts
/// above 65535 become 65535. Pixel data that the file does not hold read as zero bytes; where
/// those are not stored as 0 (`BZERO` below 0, for floating-point ones above 65535 too), a file
/// that holds next to none of it is refused.
///
/// @param progress told of the pieces done
/// @param failure  what to show when the result is false
/// @return true when the whole image was read. After false, `image` holds what had been set
///         before the failure and is not to be used.
bool ReadFitsFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                  ReadFailure& failure);

/// Parses one header card of up to 80 characters into `header`.
///
/// @param error empty when the card was good, else the message; the field is then unchanged
/// @return the card's keyword in upper case
/// @throws std::range_error when a number does not fit its field
std::string ParseHeaderCard(std::string_view card, ImageHeader& header, std::string& error);

/// A number from four bytes in file order, big-endian IEEE 754 single precision, without the
/// special cases: a stored zero gives about 5.9E-39, the all-ones exponent a huge number.
double DecodeFloat32(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3);

}  // namespace vestrel
