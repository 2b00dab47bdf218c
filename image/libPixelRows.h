// Rows of pixel bytes, as FITS files hold them, turned into stored values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vestrel {

/// The bounds of stored values: a count is never below 0, floating-point ones not above 65535.
struct StoredBounds {
    std::int32_t Floor;
    std::int32_t Ceiling;  ///< for floating-point pixels only
};

/// Rows of big-endian pixels, one after the other, and where their stored values go.
struct PixelRows {
    int BitPix;  ///< 8 (unsigned), 16 (signed) or −32 (IEEE 754 single precision)
    const std::uint8_t* Bytes;
    std::size_t Width;
    std::size_t Rows;
    std::int32_t* First;     ///< stored values of the first row
    std::ptrdiff_t RowStep;  ///< from a row of stored values to that of the next one in the file
};

/// Turns pixels into stored values; floating-point ones are rounded, halves to even.
///
/// The compiler makes vectors of these loops, of twice the length for processors with AVX2: bytes
/// are put together by shifts, choices are made without branches, and floating-point values are
/// rounded by adding a number whose last binary digit is a one.
/// @return false when a floating-point value does not fit 32 bits or is not a number
bool ConvertPixelRows(const PixelRows& rows, StoredBounds bounds);

}  // namespace vestrel
