#include "image/libStoredRows.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <vector>

#include "astro/libProcessor.h"

namespace vestrel {

namespace {

template <typename Bits>
VESTREL_KERNEL Bits Swapped(Bits bits) {
    if constexpr (sizeof(Bits) == 2) {
        return static_cast<Bits>(bits << 8 | bits >> 8);
    } else if constexpr (sizeof(Bits) == 4) {
        return bits << 24 | (bits & 0xFF00) << 8 | (bits >> 8 & 0xFF00) | bits >> 24;
    } else if constexpr (sizeof(Bits) == 8) {
        bits = (bits & 0x00FF00FF00FF00FF) << 8 | (bits >> 8 & 0x00FF00FF00FF00FF);
        bits = (bits & 0x0000FFFF0000FFFF) << 16 | (bits >> 16 & 0x0000FFFF0000FFFF);
        return bits << 32 | bits >> 32;
    } else {
        return bits;
    }
}

template <typename Bits>
VESTREL_KERNEL void Order(unsigned char* bytes, std::size_t count, bool swap, Bits flipped) {
    for (std::size_t i = 0; i < count; ++i) {
        Bits bits;
        std::memcpy(&bits, bytes + i * sizeof bits, sizeof bits);
        bits = static_cast<Bits>((swap ? Swapped(bits) : bits) ^ flipped);
        std::memcpy(bytes + i * sizeof bits, &bits, sizeof bits);
    }
}
template <typename Bits>
VESTREL_FOR_AVX2 void OrderForAvx2(unsigned char* bytes, std::size_t count, bool swap,
                                   Bits flipped) {
    Order<Bits>(bytes, count, swap, flipped);
}
template <typename Bits>
void OrderPlainly(unsigned char* bytes, std::size_t count, bool swap, Bits flipped) {
    Order<Bits>(bytes, count, swap, flipped);
}

/// Brings samples into the machine's order.
template <typename Bits>
void PutInOrder(unsigned char* bytes, std::size_t count, const StoredSamples& samples) {
    const bool swap =
        sizeof(Bits) > 1 && samples.BigEndian != (std::endian::native == std::endian::big);
    constexpr Bits topBit = static_cast<Bits>(Bits{1} << (8 * sizeof(Bits) - 1));
    const Bits flipped = samples.TopBitFlipped ? topBit : Bits{0};
    if (swap || flipped != 0) {
        (HasAvx2() ? OrderForAvx2<Bits> : OrderPlainly<Bits>)(bytes, count, swap, flipped);
    }
}

/// Signed whole numbers become doubles in their place.
void MakeDoubles(unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        std::int64_t number = 0;
        std::memcpy(&number, bytes + i * sizeof number, sizeof number);
        const auto real = static_cast<double>(number);
        std::memcpy(bytes + i * sizeof real, &real, sizeof real);
    }
}

template <typename Bits>
void Prepare(unsigned char* bytes, std::size_t count, const StoredSamples& samples) {
    PutInOrder<Bits>(bytes, count, samples);
    if (samples.WholeNumbers && sizeof(Bits) == sizeof(double)) MakeDoubles(bytes, count);
}

/// Makes a row of pixels from the rows of its planes.
template <typename Bits>
void Interleave(const unsigned char* plane, std::size_t planes, std::size_t planeBytes,
                std::size_t channels, std::size_t width, unsigned char* row) {
    for (std::size_t c = 0; c < planes; ++c, plane += planeBytes) {
        for (std::size_t x = 0; x < width; ++x) {
            std::memcpy(row + (x * channels + c) * sizeof(Bits), plane + x * sizeof(Bits),
                        sizeof(Bits));
        }
    }
}

template <typename Bits>
void PassRows(const PictureShape& shape, const StoredSamples& samples, const FileReader& read,
              PictureSink& sink) {
    const auto width = static_cast<std::size_t>(shape.Width);
    const auto height = static_cast<std::size_t>(shape.Height);
    const auto channels = static_cast<std::size_t>(shape.Channels);
    const bool planar = samples.Planar && channels > 1;
    const std::size_t planes = !planar ? 1 : channels >= 3 ? 3 : 1;
    const std::size_t rowSamples = width * (planar ? 1 : channels);
    const std::size_t rowBytes = rowSamples * sizeof(Bits);
    constexpr std::size_t pieceBytes = 1 << 17;
    const std::size_t piece = std::clamp<std::size_t>(pieceBytes / rowBytes, 1, height);
    const std::size_t planeBytes = piece * rowBytes;
    std::vector<unsigned char> bytes(planeBytes * planes);
    std::vector<unsigned char> row(planar ? width * channels * sizeof(Bits) : 0);
    for (std::size_t y = 0; y < height; y += piece) {
        const std::size_t rows = std::min(piece, height - y);
        for (std::size_t c = 0; c < planes; ++c) {
            const std::span part = std::span(bytes).subspan(c * planeBytes, rows * rowBytes);
            if (!read(samples.Start + (c * height + y) * rowBytes, part)) {
                throw DecodeFault("It ends before its pixels do.");
            }
            Prepare<Bits>(part.data(), rows * rowSamples, samples);
        }
        for (std::size_t k = 0; k < rows; ++k) {
            const unsigned char* at = bytes.data() + k * rowBytes;
            if (planar) {
                Interleave<Bits>(at, planes, planeBytes, channels, width, row.data());
                at = row.data();
            }
            const std::size_t target = samples.LastRowFirst ? height - 1 - (y + k) : y + k;
            sink.Row(static_cast<std::int64_t>(target), at);
        }
    }
}

}  // namespace

void PassStoredRows(const PictureShape& shape, const StoredSamples& samples, const FileReader& read,
                    PictureSink& sink) {
    switch (SampleBytes(shape.Kind)) {
        case 1:
            return PassRows<std::uint8_t>(shape, samples, read, sink);
        case 2:
            return PassRows<std::uint16_t>(shape, samples, read, sink);
        case 4:
            return PassRows<std::uint32_t>(shape, samples, read, sink);
        default:
            return PassRows<std::uint64_t>(shape, samples, read, sink);
    }
}

}  // namespace vestrel
