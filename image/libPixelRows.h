// Converts rows of pixel bytes, as FITS files hold them, to stored values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vestrel {

/// The bounds of stored values: counts are never below 0, and floating-point ones not above 65535.
struct StoredBounds {
    std::int32_t Floor;
    std::int32_t Ceiling;  ///< for floating-point pixels only
};

/// Rows of big-endian pixels, one after the other, and where their stored values go.
/// @tparam Cell std::int32_t, or std::uint16_t for the last 16 bits of each value
template <typename Cell>
struct PixelRows {
    int BitPix;  ///< 8 (unsigned), 16 (signed) or −32 (IEEE 754 single precision)
    const std::uint8_t* Bytes;
    std::size_t Width;
    std::size_t Rows;
    Cell* First;             ///< stored values of the first row
    std::ptrdiff_t RowStep;  ///< elements from a row of stored values to that of the file's next
                             ///< row
};

/// Converts pixels to stored values; floating-point ones are rounded, halves to even.
///
/// The compiler vectorises these loops, with twice the width on processors with AVX2. For that,
/// bytes are combined by shifts, choices are made among integers, and floating-point values are
/// rounded by adding and subtracting a number so large that its last digit is a one.
/// @return false when a floating-point value does not fit 32 bits or is not a number
template <typename Cell>
bool ConvertPixelRows(const PixelRows<Cell>& rows, StoredBounds bounds);

}  // namespace vestrel
