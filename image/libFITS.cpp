#include "image/libFITS.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "image/libFitsCards.h"
#include "image/libFitsKeywords.h"
#include "image/libPixelRows.h"
#include "platform/libFileParts.h"
#include "platform/libFiles.h"

namespace vestrel {

namespace {

/// Counts must fit 32 bits after the offset has been added, with room for later sums.
constexpr std::int64_t largestOffset = 2'000'000'000;
/// A file must hold at least one byte for this many of the pixels that it lacks: a size that was
/// only announced must cost neither memory nor the time of a solve.
constexpr std::size_t missingPixelsPerByte = 2048;
constexpr const char* generalFailure = "Unable to read the image file.";

/// Reads the cards up to END and moves to the first byte of the data.
bool ReadHeader(std::FILE* file, ImageHeader& header, ReadFailure& failure) {
    int n = 0;
    std::size_t blockPosition = 0;
    std::string keyword;
    while (keyword != "END") {
        ++n;
        blockPosition = (blockPosition + FitsCardLength) % FitsBlockLength;
        char text[FitsCardLength];
        if (std::fread(text, 1, FitsCardLength, file) != FitsCardLength) {
            throw std::runtime_error("the file ends inside the header");
        }
        const std::string card(text, FitsCardLength);
        if (n < ImageHeader::MaxCards) header.Cards[static_cast<std::size_t>(n)] = card;
        std::string error;
        try {
            keyword = ParseHeaderCard(card, header, error);
        } catch (const std::range_error&) {
            throw std::range_error("a value that is too large: " + std::string(Trim(card)));
        }
        if (!error.empty()) {
            failure = {"Unable to read FITS file. ", "FITS Header Error."};
            failure.Text.append(error).append("  String: ").append(card);
            return false;
        }
        if (n == ImageHeader::MaxCards) {
            failure = {"Unable to completely read FITS header.  Header too long.",
                       "FITS Header Error"};
            return false;
        }
    }
    header.CardCount = static_cast<std::int16_t>(n);
    if (blockPosition > 0) {
        char filler[FitsBlockLength];
        const std::size_t rest = FitsBlockLength - blockPosition;
        // A file that ends here simply has no pixel data.
        (void)!std::fread(filler, 1, rest, file);
    }
    return true;
}

bool CheckHeader(const ImageHeader& header, ReadFailure& failure) {
    if (!header.Simple) {
        failure = {"Unable to read FITS file.  Simple must equal True.", "FITS Reading Error"};
        return false;
    }
    if (header.NAxis != 2) {
        failure = {"Unable to read FITS file.  Naxis = " + std::to_string(header.NAxis) +
                       " not supported.",
                   "FITS Error"};
        return false;
    }
    if (header.BitPix != 8 && header.BitPix != 16 && header.BitPix != -32) {
        failure = {"Unable to read FITS file.  BitPix = " + std::to_string(header.BitPix) +
                       " not supported.",
                   "FITS Error"};
        return false;
    }
    return true;
}

/// Where a file's pixels lie, and what becomes of them.
struct PixelLayout {
    int BitPix;
    std::size_t RowBytes;
    std::size_t Wanted;    ///< bytes that the header promises
    std::size_t Held = 0;  ///< of these the bytes that the file holds
    StoredBounds Bounds;

    PixelLayout(const ImageHeader& header, std::int32_t offset)
        : BitPix(header.BitPix),
          RowBytes(static_cast<std::size_t>(header.NAxis1) * PixelBytes()),
          Wanted(RowBytes * static_cast<std::size_t>(header.NAxis2)),
          Bounds{-offset, 65535 - offset} {}

    std::size_t PixelBytes() const { return static_cast<std::size_t>(std::abs(BitPix)) / 8; }
    /// Narrow when all counts that pixels of this kind can have are at most 65535.
    CellWidth Cells() const {
        const int largest = BitPix == 8 ? 255 : BitPix == 16 ? 32767 : Bounds.Ceiling;
        return largest <= Bounds.Ceiling ? CellWidth::Narrow : CellWidth::Wide;
    }
    /// Whether zero bytes convert to 0, which is what a new grid holds already.
    bool MissingCostNothing() const {
        return Bounds.Floor <= 0 && (BitPix != -32 || Bounds.Ceiling >= 0);
    }
};

std::int32_t OffsetOf(const ImageHeader& header) {
    std::int32_t offset = 0;
    if (!RoundToInt32(header.BZero, offset) || std::abs(std::int64_t{offset}) > largestOffset) {
        {
            throw std::range_error("a value that is too large: BZERO = " +
                                   NumberText(header.BZero));
        }
    }
    return offset;
}

void RefuseForgedSize(const PixelLayout& layout) {
    const std::size_t missing = (layout.Wanted - layout.Held) / layout.PixelBytes();
    if (missing / missingPixelsPerByte > layout.Held + FitsBlockLength) {
        throw std::runtime_error("next to none of its pixels are there");
    }
}

/// Converts the rows `first`..`end` − 1 of the file from their bytes.
template <typename Cell>
void StoreRows(const PixelLayout& layout, const std::uint8_t* bytes, std::int32_t first,
               std::int32_t end, const PlateImage& image, Grid<Cell>& cells) {
    if (end <= first) return;
    // Only floating-point images are turned upside down.
    const bool turned = layout.BitPix == -32;
    const std::int32_t y = turned ? image.Height - 1 - first : first;
    const std::ptrdiff_t rowLength = std::ptrdiff_t{image.Width} + 1;
    const PixelRows<Cell> rows{layout.BitPix,
                               bytes,
                               static_cast<std::size_t>(image.Width),
                               static_cast<std::size_t>(end - first),
                               cells.Row(y).data(),
                               turned ? -rowLength : rowLength};
    if (!ConvertPixelRows(rows, layout.Bounds)) {
        throw std::range_error("a pixel that is infinite, not a number or too large");
    }
}

/// Reads the pixels in pieces that the processors share. Each piece is converted while it is in the
/// cache, and no buffer for the whole file is needed.
/// @param read called as read(start, buffer, length): copies the pixels' bytes from `start` on into
///             `buffer` and returns how many there were
template <typename Read>
void ReadPieces(const PixelLayout& layout, PlateImage& image, const Progress& progress, Read read) {
    constexpr std::size_t pieceBytes = std::size_t{256} << 10;
    const auto rowsPerPiece = static_cast<std::int32_t>(
        std::max(pieceBytes / std::max<std::size_t>(layout.RowBytes, 1), std::size_t{1}));
    std::int32_t rows = image.Height;
    if (layout.MissingCostNothing() && layout.RowBytes > 0) {
        rows = static_cast<std::int32_t>((layout.Held + layout.RowBytes - 1) / layout.RowBytes);
    }
    const auto readPiece = [&](int piece) {
        const std::int32_t first = piece * rowsPerPiece;
        const std::int32_t end = std::min(first + rowsPerPiece, rows);
        const std::size_t start = static_cast<std::size_t>(first) * layout.RowBytes;
        const std::size_t length = static_cast<std::size_t>(end - first) * layout.RowBytes;
        const auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(length);
        const std::size_t there =
            start < layout.Held ? read(start, bytes.get(), std::min(length, layout.Held - start))
                                : 0;
        std::fill(bytes.get() + there, bytes.get() + length, std::uint8_t{0});
        if (image.Pixels.IsNarrow()) {
            StoreRows(layout, bytes.get(), first, end, image, image.Pixels.NarrowCells());
        } else {
            StoreRows(layout, bytes.get(), first, end, image, image.Pixels.Wide());
        }
    };
    ParallelFor((rows + rowsPerPiece - 1) / rowsPerPiece, readPiece, progress);
    if (progress) progress(0, image.Height);
}

void ReadPixels(std::FILE* file, std::int64_t fileLength, PlateImage& image,
                const Progress& progress) {
    const ImageHeader& header = image.Header;
    if (header.NAxis1 < 0 || header.NAxis2 < 0) {
        throw std::range_error("a negative size: NAXIS1 = " + std::to_string(header.NAxis1) +
                               ", NAXIS2 = " + std::to_string(header.NAxis2));
    }
    const std::int32_t offset = OffsetOf(header);
    PixelLayout layout(header, offset);
    const std::int64_t dataStart = FilePosition(file);
    layout.Held = std::min(
        layout.Wanted, static_cast<std::size_t>(std::max<std::int64_t>(fileLength - dataStart, 0)));
    RefuseForgedSize(layout);
    StartPixels(image, offset, layout.Cells());
    ReadPieces(
        layout, image, progress, [&](std::size_t start, std::uint8_t* bytes, std::size_t length) {
            return ReadAt(file, static_cast<std::uint64_t>(dataStart) + start, bytes, length);
        });
}

/// A look at the file's first block, as most files are not floating-point ones.
bool SaysFloatingPoint(std::FILE* file) {
    char block[FitsBlockLength];
    const std::string_view start(block, std::fread(block, 1, sizeof block, file));
    for (std::size_t at = 0; at + FitsCardLength <= start.size(); at += FitsCardLength) {
        const std::string_view card = start.substr(at, FitsCardLength);
        if (card.starts_with("BITPIX  =")) return card.find("-32") != std::string_view::npos;
    }
    return false;
}

/// Whether all finite pixels in these bytes lie within 0..2, and some are fractions.
bool HoldFractions(const std::vector<std::uint8_t>& bytes) {
    constexpr double least = std::numeric_limits<float>::min();
    bool fractions = false;
    for (std::size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        const bool finite = (bytes[i] & 0x7F) != 0x7F || (bytes[i + 1] & 0x80) == 0;
        const double number = DecodeFloat32(bytes[i], bytes[i + 1], bytes[i + 2], bytes[i + 3]);
        if (finite && (number < -least || number > 2)) return false;
        fractions |= finite && number > least && number != 1 && number != 2;
    }
    return fractions;
}

}  // namespace

bool MayHoldFractions(const std::filesystem::path& path) {
    try {
        const FileHandle file = OpenFile(path, "rb");
        if (!file || !SaysFloatingPoint(file.get()) || !SeekFile(file.get(), 0)) return false;
        ImageHeader header;
        ReadFailure ignored;
        ClearHeader(header);
        if (!ReadHeader(file.get(), header, ignored) || !CheckHeader(header, ignored) ||
            header.BitPix != -32 || OffsetOf(header) != 0 ||
            (header.BScale != 0 && header.BScale != 1) || header.NAxis1 < 1 || header.NAxis2 < 1) {
            return false;
        }
        const std::size_t rowBytes = PixelLayout(header, 0).RowBytes;
        const std::int64_t start = FilePosition(file.get());
        constexpr std::size_t rows = 8;
        std::vector<std::uint8_t> bytes(rows * rowBytes);
        for (std::size_t n = 0; n < rows; ++n) {
            const std::size_t y =
                (2 * n + 1) * static_cast<std::size_t>(header.NAxis2) / (2 * rows);
            if (ReadAt(file.get(), static_cast<std::uint64_t>(start) + y * rowBytes,
                       bytes.data() + n * rowBytes, rowBytes) != rowBytes) {
                return false;
            }
        }
        return HoldFractions(bytes);
    } catch (const std::exception&) {
        return false;
    }
}

bool ReadFitsFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                  ReadFailure& failure) {
    failure = {};
    ClearHeader(image.Header);
    try {
        const FileHandle file = OpenFile(path, "rb");
        if (!file) throw std::runtime_error("it cannot be opened");
        const std::int64_t fileLength = FileLength(file.get());
        if (fileLength < 0) throw std::runtime_error("it is no file");
        if (!ReadHeader(file.get(), image.Header, failure)) return false;
        if (!CheckHeader(image.Header, failure)) return false;
        ReadPixels(file.get(), fileLength, image, progress);
        return true;
    } catch (const std::bad_alloc&) {
        failure = {generalFailure, DefaultTitle, "there is not enough memory for it"};
        return false;
    } catch (const std::exception& error) {
        failure = {generalFailure, DefaultTitle, error.what()};
        return false;
    }
}

double DecodeFloat32(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3) {
    const double sign = (b0 & 0x80) != 0 ? -1 : 1;
    const int exponent = 2 * (b0 & 0x7F) + (b1 >> 7);
    const auto mantissa = static_cast<float>(1 + ((b1 & 0x7F) + b2 / 256.0 + b3 / 65536.0) / 128);
    return sign * std::ldexp(static_cast<double>(mantissa), exponent - 127);
}

}  // namespace vestrel
