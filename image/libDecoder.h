// Between a decoder of one file format and the program: the decoder reads bytes and hands pixels
// and cards on. Decoders know nothing else of the program, so that each can be a module of its own,
// loaded with its libraries when the first picture of its format is opened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vestrel {

/// Why a picture cannot be read, in a sentence to show.
class DecodeFault : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class SampleKind { UInt8, UInt16, Int16, Float32, Float64 };

/// What a decoder says of its picture before the first row.
struct PictureShape {
    std::int64_t Width = 0;
    std::int64_t Height = 0;
    int Channels = 1;  ///< samples of a pixel: of 3 or more the first three are colours, else the
                       ///< first one counts
    SampleKind Kind = SampleKind::UInt8;
    int BitPix = 16;  ///< bits of a sample as the file has it, negative for floating point
    bool TopRowFirst = true;
};

/// Takes what a file says beside its pixels.
class CardSink {
 public:
    /// A header card of 80 characters as it stands in a FITS file.
    virtual void Card(std::string_view card) = 0;
    /// Cards of what other formats say, in the words that FITS headers have for it.
    virtual void TextCard(std::string_view keyword, std::string_view text,
                          std::string_view comment) = 0;
    virtual void NumberCard(std::string_view keyword, double value, std::string_view comment) = 0;
    /// A note for the user: what was left out, or done to the picture.
    virtual void Remark(std::string text) = 0;
    /// How the picture is to be turned for display: 1 to 8 as EXIF counts.
    virtual void Orientation(int value) = 0;

 protected:
    CardSink() = default;
    CardSink(const CardSink&) = default;
    CardSink& operator=(const CardSink&) = default;
    ~CardSink() = default;
};

/// Takes a picture. Every procedure throws `DecodeFault` when the picture cannot be taken.
class PictureSink : public CardSink {
 public:
    /// Has to come first. Refuses more pixels than there is room for.
    virtual void Start(const PictureShape& shape) = 0;
    /// Row y from 0 on: `Width` times `Channels` samples, in the machine's byte order.
    virtual void Row(std::int64_t y, const void* samples) = 0;

 protected:
    PictureSink() = default;
    PictureSink(const PictureSink&) = default;
    PictureSink& operator=(const PictureSink&) = default;
    ~PictureSink() = default;
};

/// Decodes the bytes of a file. Throws `DecodeFault`, or std::bad_alloc.
using PictureDecoder = void(std::span<const unsigned char> file, PictureSink& sink);

/// No packed format in use makes more than so many bytes of one: a forged size must not cost
/// memory.
inline constexpr std::uint64_t MostBytesFromOne = 2048;

/// Refuses a picture whose size could not have come from the bytes of its file.
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
