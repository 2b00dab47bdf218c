// The interface between the program and the decoder of a file format: the decoder reads bytes and
// passes on pixels and header cards. Decoders know nothing else of the program, so that each can be
// a module that is loaded with its libraries when the first picture of its format is opened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vestrel {

/// Why a picture cannot be read, as a sentence for the user.
class DecodeFault : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class SampleKind { UInt8, UInt16, Int16, Int32, UInt32, Float32, Float64 };

/// The size of a sample in bytes.
constexpr std::size_t SampleBytes(SampleKind kind) {
    constexpr std::size_t bytes[] = {1, 2, 2, 4, 4, 4, 8};
    return bytes[static_cast<std::size_t>(kind)];
}
inline constexpr int SampleKinds = 7;

/// What a decoder states about its picture before the first row.
struct PictureShape {
    std::int64_t Width = 0;
    std::int64_t Height = 0;
    int Channels = 1;  ///< samples of a pixel: when there are 3 or more, the first three are
                       ///< colours; else only the first is used
    SampleKind Kind = SampleKind::UInt8;
    int BitPix = 16;  ///< bits of a sample as the file has it, negative for floating point
    bool TopRowFirst = true;
};

/// Where the samples of a picture lie in its file when nothing has to be decoded: rows without gaps
/// between them, and planes likewise.
struct StoredSamples {
    std::uint64_t Start = 0;  ///< the byte of the file with which they begin
    bool BigEndian = false;
    bool Planar = false;        ///< a whole plane for each channel
    bool LastRowFirst = false;  ///< the first row of the file is the picture's last one
    bool TopBitFlipped =
        false;                  ///< unsigned samples that are stored as signed ones less 2^(bits-1)
    bool WholeNumbers = false;  ///< signed 64-bit numbers, to be taken as `SampleKind::Float64`
};

/// Receives the header of a file as cards.
class CardSink {
 public:
    /// A header card of 80 characters, as in a FITS file.
    virtual void Card(std::string_view card) = 0;
    /// A card made from another format's metadata, under the keyword that FITS headers use for it.
    virtual void TextCard(std::string_view keyword, std::string_view text,
                          std::string_view comment) = 0;
    virtual void NumberCard(std::string_view keyword, double value, std::string_view comment) = 0;
    /// A note for the user: what was left out, or done to the picture.
    virtual void Remark(std::string text) = 0;
    /// How to turn the picture for display: 1..8 as in EXIF; other values are ignored.
    virtual void Orientation(int value) = 0;

 protected:
    CardSink() = default;
    CardSink(const CardSink&) = default;
    CardSink& operator=(const CardSink&) = default;
    ~CardSink() = default;
};

/// Receives a picture. Every procedure throws `DecodeFault` when the picture cannot be used.
class PictureSink : public CardSink {
 public:
    /// Must be the first call. Refuses pictures that are too large.
    virtual void Start(const PictureShape& shape) = 0;
    /// Row y from 0 on: `Width` times `Channels` samples, in the machine's byte order.
    virtual void Row(std::int64_t y, const void* samples) = 0;
    /// Instead of all rows: the sink reads them from the file that is decoded.
    virtual void Stored(const StoredSamples& samples) = 0;

 protected:
    PictureSink() = default;
    PictureSink(const PictureSink&) = default;
    PictureSink& operator=(const PictureSink&) = default;
    ~PictureSink() = default;
};

/// Decodes the bytes of a file. Throws `DecodeFault`, or std::bad_alloc.
using PictureDecoder = void(std::span<const unsigned char> file, PictureSink& sink);

/// The limits of a picture. The image record holds sides as signed 16-bit numbers.
inline constexpr std::int64_t LongestSide = 32767;
inline constexpr std::int64_t MostPixels = std::int64_t{1} << 28;

/// @throws DecodeFault when a picture has no pixels or more than any may have
inline void RequireWithinLimits(std::int64_t width, std::int64_t height) {
    if (width < 1 || height < 1) throw DecodeFault("It has no pixels.");
    const auto size = std::to_string(width) + " x " + std::to_string(height);
    if (width > LongestSide || height > LongestSide) {
        throw DecodeFault("It has " + size + " pixels; a side may have " +
                          std::to_string(LongestSide) + ".");
    }
    if (width * height > MostPixels) {
        throw DecodeFault("It has " + size + " pixels; the limit is " +
                          std::to_string(MostPixels / 1'000'000) + " million.");
    }
}

/// No compression in use turns one byte into more bytes than this. The limit keeps a forged size
/// from costing memory.
inline constexpr std::uint64_t MostBytesFromOne = 2048;

/// Refuses a picture whose size could not have come from the bytes of its file.
/// @param pixelBytes bytes of one pixel when unpacked
/// @throws DecodeFault, also when a side is below 1 or above 2^24
inline void RequirePlausible(std::int64_t width, std::int64_t height, std::uint64_t pixelBytes,
                             std::uint64_t fileBytes) {
    constexpr std::int64_t longest = 1 << 24;
    if (width < 1 || height < 1 || width > longest || height > longest) {
        throw DecodeFault("Its size of " + std::to_string(width) + " x " + std::to_string(height) +
                          " pixels is none.");
    }
    const auto pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
    if (pixels * pixelBytes / MostBytesFromOne > fileBytes) {
        throw DecodeFault("It is to have " + std::to_string(width) + " x " +
                          std::to_string(height) + " pixels, which " + std::to_string(fileBytes) +
                          " bytes cannot hold.");
    }
}

}  // namespace vestrel
