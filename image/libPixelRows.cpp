#include "image/libPixelRows.h"

#include <bit>
#include <cstring>

#include "astro/libProcessor.h"

namespace vestrel {

namespace {

VESTREL_KERNEL std::int32_t NotBelow(std::int32_t value, std::int32_t floor) {
    return value < floor ? floor : value;
}

template <typename Cell>
VESTREL_KERNEL void ConvertBytes(const std::uint8_t* __restrict bytes, Cell* __restrict row,
                                 std::size_t width, std::int32_t floor) {
    for (std::size_t x = 0; x < width; ++x) row[x] = static_cast<Cell>(NotBelow(bytes[x], floor));
}

/// The number that big-endian bytes stand for.
template <typename Unsigned>
VESTREL_KERNEL Unsigned FromBigEndian(const std::uint8_t* bytes) {
    Unsigned value;
    std::memcpy(&value, bytes, sizeof value);
    if constexpr (std::endian::native == std::endian::big) {
        return value;
    } else if constexpr (sizeof(Unsigned) == 2) {
        return static_cast<Unsigned>(value << 8 | value >> 8);
    } else {
        return value << 24 | (value & 0xFF00) << 8 | (value >> 8 & 0xFF00) | value >> 24;
    }
}

template <typename Cell>
VESTREL_KERNEL void ConvertWords(const std::uint8_t* __restrict bytes, Cell* __restrict row,
                                 std::size_t width, std::int32_t floor) {
    for (std::size_t x = 0; x < width; ++x) {
        const auto value = static_cast<std::int16_t>(FromBigEndian<std::uint16_t>(bytes + 2 * x));
        row[x] = static_cast<Cell>(NotBelow(value, floor));
    }
}

/// The last digit of 1.5 × 2^23 stays a one when a number of at most this size is added.
constexpr std::int32_t singlePrecisionIsEnough = 1 << 22;

/// The machine's own floats equal those of `DecodeFloat32`, except the smallest, which round to 0
/// either way, and infinities and NaN, which are refused either way.
/// @tparam Float with which numbers are clamped and rounded. The bounds are whole numbers, so it
///         makes no difference which comes first. `float` needs bounds of at most
///         `singlePrecisionIsEnough`.
template <typename Float, typename Cell>
VESTREL_KERNEL bool ConvertFloats(const std::uint8_t* __restrict bytes, Cell* __restrict row,
                                  std::size_t width, StoredBounds bounds) {
    // 1.5 × 2^52 or 1.5 × 2^23
    constexpr Float lastDigitIsOne =
        sizeof(Float) == 8 ? Float(6755399441055744.0) : Float(12582912.0);
    constexpr float tooLarge = 2147483648.0F;  // all floats of this size are whole numbers
    const auto floor = static_cast<Float>(bounds.Floor);
    const auto ceiling = static_cast<Float>(bounds.Ceiling);
    std::int32_t misfits = 0;
    for (std::size_t x = 0; x < width; ++x) {
        const auto number = std::bit_cast<float>(FromBigEndian<std::uint32_t>(bytes + 4 * x));
        misfits |= number >= -tooLarge && number < tooLarge ? 0 : 1;
        const Float notBelow = number > floor ? static_cast<Float>(number) : floor;
        const Float within = notBelow < ceiling ? notBelow : ceiling;
        const Float whole = (within + lastDigitIsOne) - lastDigitIsOne;
        row[x] = static_cast<Cell>(static_cast<std::int32_t>(whole));
    }
    return misfits == 0;
}

template <typename Cell>
VESTREL_KERNEL bool Convert(const PixelRows<Cell>& rows, StoredBounds bounds) {
    bool good = true;
    const std::uint8_t* bytes = rows.Bytes;
    Cell* row = rows.First;
    for (std::size_t i = 0; i < rows.Rows; ++i, row += rows.RowStep) {
        if (rows.BitPix == -32) {
            const bool single = bounds.Floor >= -singlePrecisionIsEnough &&
                                bounds.Ceiling <= singlePrecisionIsEnough;
            good &= single ? ConvertFloats<float>(bytes, row, rows.Width, bounds)
                           : ConvertFloats<double>(bytes, row, rows.Width, bounds);
            bytes += 4 * rows.Width;
        } else if (rows.BitPix == 16) {
            ConvertWords(bytes, row, rows.Width, bounds.Floor);
            bytes += 2 * rows.Width;
        } else {
            ConvertBytes(bytes, row, rows.Width, bounds.Floor);
            bytes += rows.Width;
        }
    }
    return good;
}
template <typename Cell>
VESTREL_FOR_AVX2 bool ConvertForAvx2(const PixelRows<Cell>& rows, StoredBounds bounds) {
    return Convert(rows, bounds);
}
template <typename Cell>
bool ConvertPlainly(const PixelRows<Cell>& rows, StoredBounds bounds) {
    return Convert(rows, bounds);
}

}  // namespace

template <typename Cell>
bool ConvertPixelRows(const PixelRows<Cell>& rows, StoredBounds bounds) {
    return (HasAvx2() ? ConvertForAvx2<Cell> : ConvertPlainly<Cell>)(rows, bounds);
}
template bool ConvertPixelRows(const PixelRows<std::int32_t>&, StoredBounds);
template bool ConvertPixelRows(const PixelRows<std::uint16_t>&, StoredBounds);

}  // namespace vestrel
