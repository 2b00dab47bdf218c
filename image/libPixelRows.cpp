#include "image/libPixelRows.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

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

/// An integer that grows with the float that has these bits. Which of two floats is greater is
/// asked of integers, as the compiler does not vectorise such choices among floats.
VESTREL_KERNEL std::int32_t OrderOf(std::uint32_t bits) {
    const auto number = static_cast<std::int32_t>(bits);
    return number ^ (number >> 31 & std::numeric_limits<std::int32_t>::max());
}
VESTREL_KERNEL std::int32_t OrderOf(float number) {
    return OrderOf(std::bit_cast<std::uint32_t>(number));
}
VESTREL_KERNEL float FloatOf(std::int32_t order) {
    // It is its own inverse.
    return std::bit_cast<float>(OrderOf(static_cast<std::uint32_t>(order)));
}

/// The last digit of this stays a one when a number of at most `singlePrecisionIsEnough` is added.
constexpr float lastDigitIsOne = 12582912;  // 1.5 × 2^23
constexpr std::int32_t singlePrecisionIsEnough = 1 << 22;

/// The machine's own floats equal those of `DecodeFloat32`, except the smallest, which round to 0
/// either way, and infinities and NaN, which are refused either way. Numbers are clamped before
/// they are rounded, which makes no difference as the bounds are whole numbers.
/// @param bounds of at most `singlePrecisionIsEnough`
template <typename Cell>
VESTREL_KERNEL bool ConvertFloats(const std::uint8_t* __restrict bytes, Cell* __restrict row,
                                  std::size_t width, StoredBounds bounds) {
    const std::int32_t floor = OrderOf(static_cast<float>(bounds.Floor));
    const std::int32_t ceiling = OrderOf(static_cast<float>(bounds.Ceiling));
    const std::int32_t least = OrderOf(-2147483648.0F);
    const std::int32_t tooLarge = OrderOf(2147483648.0F);
    std::int32_t misfits = 0;
    for (std::size_t x = 0; x < width; ++x) {
        const std::int32_t number = OrderOf(FromBigEndian<std::uint32_t>(bytes + 4 * x));
        misfits |= (number < least ? 1 : 0) | (number >= tooLarge ? 1 : 0);
        const std::int32_t notBelow = NotBelow(number, floor);
        const float within = FloatOf(notBelow > ceiling ? ceiling : notBelow);
        row[x] = static_cast<Cell>(std::bit_cast<std::int32_t>(within + lastDigitIsOne) -
                                   std::bit_cast<std::int32_t>(lastDigitIsOne));
    }
    return misfits == 0;
}
/// The same for any bounds.
template <typename Cell>
bool ConvertFarFloats(const std::uint8_t* bytes, Cell* row, std::size_t width,
                      StoredBounds bounds) {
    bool good = true;
    for (std::size_t x = 0; x < width; ++x) {
        const auto number = std::bit_cast<float>(FromBigEndian<std::uint32_t>(bytes + 4 * x));
        const bool fits = number >= -2147483648.0F && number < 2147483648.0F;
        good &= fits;
        const double value = std::nearbyint(fits ? number : 0.0);
        const double within = std::clamp<double>(value, bounds.Floor, bounds.Ceiling);
        row[x] = static_cast<Cell>(static_cast<std::int32_t>(within));
    }
    return good;
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
            good &= single ? ConvertFloats(bytes, row, rows.Width, bounds)
                           : ConvertFarFloats(bytes, row, rows.Width, bounds);
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
