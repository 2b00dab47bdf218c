// The FITS reader, compared with pixels decoded one by one.

#include <algorithm>

#include "astro/libMath.h"
#include "fuzz/fuzzSupport.h"
#include "image/libFITS.h"

namespace vestrel {
namespace {

/// The stored value that begins at byte `at` of a file; bytes beyond the end count as zero.
std::int32_t PlainValue(std::string_view bytes, std::size_t at, const PlateImage& image) {
    const auto byte = [&](std::size_t i) {
        return static_cast<std::uint8_t>(at + i < bytes.size() ? bytes[at + i] : 0);
    };
    const int floor = -image.DataOffset;
    switch (image.Header.BitPix) {
        case 8:
            return std::max<int>(byte(0), floor);
        case 16:
            return std::max<int>(static_cast<std::int16_t>(byte(0) << 8 | byte(1)), floor);
        default:
            return std::min(
                std::max(RoundToNearestInt32(DecodeFloat32(byte(0), byte(1), byte(2), byte(3))),
                         floor),
                65535 + floor);
    }
}

void CheckPixels(std::string_view bytes, const PlateImage& image) {
    const auto cards = static_cast<std::size_t>(image.Header.CardCount);
    const std::size_t start = (cards * 80 + 2879) / 2880 * 2880;
    const std::size_t pixelBytes = static_cast<std::size_t>(std::abs(image.Header.BitPix)) / 8;
    for (std::int32_t y = 0; y < std::min(image.Height, WalkedSize); ++y) {
        const std::int32_t row = image.Header.BitPix == -32 ? image.Height - 1 - y : y;
        for (std::int32_t x = 0; x < std::min(image.Width, WalkedSize); ++x) {
            const std::size_t place =
                static_cast<std::size_t>(y) * static_cast<std::size_t>(image.Width) +
                static_cast<std::size_t>(x);
            const std::int32_t stored = image.Pixels(x, row);
            Require(stored == PlainValue(bytes, start + place * pixelBytes, image),
                    "pixels are the file's");
            Require(std::int64_t{stored} + image.DataOffset >= 0, "counts are not negative");
        }
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    const std::string_view bytes = TextOf(data, size);
    const CheckedImage read = ReadChecked(ReadFitsFile, bytes);
    if (read.Good) {
        CheckPixels(bytes, read.Image);
        CheckSaved(read.Image);
    } else {
        Require(!read.Failure.Text.empty(), "a failed read has a message");
    }
    return 0;
}
