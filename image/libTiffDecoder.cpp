// TIFF pictures, by libtiff: grey or colour of 8 to 64 bits, whole numbers or floating point,
// strips and tiles. Only the first of several pages is read.
#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "image/libDecoder.h"
#include "image/libExif.h"

namespace vestrel {

PictureDecoder DecodeTiff;

namespace {

/// The file in memory, as libtiff asks for it.
struct Source {
    std::span<const unsigned char> Bytes;
    std::uint64_t Position = 0;
    std::string Error;
};

tmsize_t Read(thandle_t handle, void* bytes, tmsize_t length) {
    auto* source = static_cast<Source*>(handle);
    if (length < 0 || source->Position >= source->Bytes.size()) return 0;
    const std::size_t taken = std::min<std::size_t>(static_cast<std::size_t>(length),
                                                    source->Bytes.size() - source->Position);
    std::memcpy(bytes, source->Bytes.data() + source->Position, taken);
    source->Position += taken;
    return static_cast<tmsize_t>(taken);
}
tmsize_t Write(thandle_t /*handle*/, void* /*bytes*/, tmsize_t /*length*/) {
    return -1;
}
toff_t Seek(thandle_t handle, toff_t offset, int whence) {
    auto* source = static_cast<Source*>(handle);
    if (whence == SEEK_CUR) offset += source->Position;
    if (whence == SEEK_END) offset += source->Bytes.size();
    return source->Position = offset;
}
int Close(thandle_t /*handle*/) {
    return 0;
}
toff_t Size(thandle_t handle) {
    return static_cast<Source*>(handle)->Bytes.size();
}
int OnError(TIFF* /*tiff*/, void* user, const char* /*module*/, const char* format, va_list list) {
    char text[200];
    std::vsnprintf(text, sizeof text, format, list);
    auto* source = static_cast<Source*>(user);
    if (source->Error.empty()) source->Error = text;
    return 1;
}
int OnWarning(TIFF* /*tiff*/, void* /*user*/, const char* /*module*/, const char* /*format*/,
              va_list /*list*/) {
    return 1;
}

struct TiffCloser {
    void operator()(TIFF* tiff) const noexcept { TIFFClose(tiff); }
};
using TiffHandle = std::unique_ptr<TIFF, TiffCloser>;

TiffHandle OpenSource(Source& source) {
    const std::unique_ptr<TIFFOpenOptions, void (*)(TIFFOpenOptions*)> options(
        TIFFOpenOptionsAlloc(), TIFFOpenOptionsFree);
    if (!options) throw std::bad_alloc();
    constexpr tmsize_t largestPiece = tmsize_t{2} << 30;
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), largestPiece);
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), OnError, &source);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), OnWarning, &source);
    // "m" turns off memory mapping, since there is no file to map.
    return TiffHandle(TIFFClientOpenExt("picture", "rm", &source, Read, Write, Seek, Close, Size,
                                        nullptr, nullptr, options.get()));
}

/// The layout of the picture's samples.
struct Layout {
    std::uint32_t Width = 0;
    std::uint32_t Height = 0;
    std::uint16_t Bits = 1;
    std::uint16_t Format = SAMPLEFORMAT_UINT;
    std::uint16_t Channels = 1;
    std::uint16_t Planar = PLANARCONFIG_CONTIG;
    std::uint16_t Photometric = PHOTOMETRIC_MINISBLACK;
    std::uint16_t Compression = COMPRESSION_NONE;
};

Layout LayoutOf(TIFF* tiff) {
    Layout layout;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &layout.Width);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &layout.Height);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &layout.Bits);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &layout.Format);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &layout.Channels);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &layout.Planar);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &layout.Compression);
    TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &layout.Photometric);
    return layout;
}

void RequireSupported(TIFF* tiff, Layout& layout) {
    const auto refuse = [](const std::string& what) { throw DecodeFault(what); };
    if (TIFFIsCODECConfigured(layout.Compression) == 0) {
        refuse("Its compression " + std::to_string(layout.Compression) +
               " is not supported: save it with Deflate, LZW or none.");
    }
    if (layout.Photometric == PHOTOMETRIC_YCBCR && layout.Compression == COMPRESSION_JPEG) {
        TIFFSetField(tiff, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
        layout.Photometric = PHOTOMETRIC_RGB;
    }
    if (layout.Photometric > PHOTOMETRIC_RGB) {
        refuse("Its colours are of kind " + std::to_string(layout.Photometric) +
               ", which is not supported: save it in grey or RGB.");
    }
    const bool whole = layout.Format == SAMPLEFORMAT_UINT || layout.Format == SAMPLEFORMAT_INT ||
                       layout.Format == SAMPLEFORMAT_VOID;
    const bool floating = layout.Format == SAMPLEFORMAT_IEEEFP;
    const bool good = (whole && (layout.Bits == 8 || layout.Bits == 16 || layout.Bits == 32)) ||
                      (floating && (layout.Bits == 32 || layout.Bits == 64));
    if (!good) {
        refuse("Its samples of " + std::to_string(layout.Bits) + " bits, format " +
               std::to_string(layout.Format) +
               ", are not supported: save it with 8, 16 or 32 bits, or as floating point.");
    }
    constexpr std::uint16_t mostChannels = 16;
    if (layout.Channels < 1 || layout.Channels > mostChannels) {
        refuse("It has " + std::to_string(layout.Channels) + " samples a pixel.");
    }
    RequirePlausible(layout.Width, layout.Height, 1,
                     static_cast<std::uint64_t>(Size(TIFFClientdata(tiff))));
}

SampleKind KindOf(const Layout& layout) {
    if (layout.Format == SAMPLEFORMAT_IEEEFP) {
        return layout.Bits == 32 ? SampleKind::Float32 : SampleKind::Float64;
    }
    const bool isSigned = layout.Format == SAMPLEFORMAT_INT;
    if (layout.Bits == 8) return isSigned ? SampleKind::Int16 : SampleKind::UInt8;
    if (layout.Bits == 16) return isSigned ? SampleKind::Int16 : SampleKind::UInt16;
    return isSigned ? SampleKind::Int32 : SampleKind::UInt32;
}

/// Passes on rows of samples from libtiff in the kinds that the sink knows.
class RowWriter {
 public:
    RowWriter(const Layout& layout, PictureSink& sink) : layout_(layout), sink_(sink) {
        const std::size_t samples = std::size_t{layout.Width} * layout.Channels;
        if (layout.Bits == 8 && layout.Format == SAMPLEFORMAT_INT) short_.resize(samples);
    }

    /// `samples` is a row, and may be changed.
    void Write(std::uint32_t y, unsigned char* samples) {
        const std::size_t count = std::size_t{layout_.Width} * layout_.Channels;
        if (layout_.Photometric == PHOTOMETRIC_MINISWHITE) {
            const std::size_t bytes = count * layout_.Bits / 8;
            if (layout_.Format != SAMPLEFORMAT_IEEEFP) {
                for (std::size_t i = 0; i < bytes; ++i)
                    samples[i] = static_cast<unsigned char>(~samples[i]);
            }
        }
        const void* row = samples;
        if (!short_.empty()) {
            for (std::size_t i = 0; i < count; ++i) {
                const int value = samples[i];
                short_[i] = static_cast<std::int16_t>(value < 128 ? value : value - 256);
            }
            row = short_.data();
        }
        sink_.Row(y, row);
    }

 private:
    const Layout& layout_;
    PictureSink& sink_;
    std::vector<std::int16_t> short_;
};

[[noreturn]] void FailPixels(const Source& source) {
    throw DecodeFault("Its pixels cannot be decoded (" + source.Error + ").");
}

/// Pieces of the picture: tiles, or strips as wide as it is.
class Pieces {
 public:
    Pieces(TIFF* tiff, const Layout& layout, const Source& source)
        : tiff_(tiff), layout_(layout), source_(source), tiled_(TIFFIsTiled(tiff) != 0) {
        if (tiled_) {
            TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &width_);
            TIFFGetField(tiff, TIFFTAG_TILELENGTH, &height_);
        } else {
            width_ = layout.Width;
            TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &height_);
            height_ = std::min(height_, layout.Height);
        }
        const tmsize_t bytes = tiled_ ? TIFFTileSize(tiff) : TIFFStripSize(tiff);
        if (width_ == 0 || height_ == 0 || bytes <= 0) FailPixels(source);
        // A piece may be larger than the picture, as long as the file can fill it.
        if (static_cast<std::uint64_t>(bytes) / MostBytesFromOne > source.Bytes.size()) {
            FailPixels(source);
        }
        piece_.resize(static_cast<std::size_t>(bytes));
    }

    std::uint32_t Height() const { return height_; }

    /// Rows from `y` on, up to `Height()` of them, of one plane or of all channels together.
    void Read(std::uint32_t y, std::uint16_t plane, std::size_t samplesOfPixel,
              std::vector<unsigned char>& band) {
        const std::size_t pixelBytes = samplesOfPixel * layout_.Bits / 8;
        const std::size_t rowBytes = layout_.Width * pixelBytes;
        const std::uint32_t rows = std::min(height_, layout_.Height - y);
        for (std::uint32_t x = 0; x < layout_.Width; x += width_) {
            const tmsize_t got = ReadPiece(x, y, plane);
            const std::size_t columns = std::min(width_, layout_.Width - x);
            const std::size_t stride = width_ * pixelBytes;
            if (got < 0 ||
                static_cast<std::size_t>(got) < stride * (rows - 1) + columns * pixelBytes) {
                FailPixels(source_);
            }
            for (std::uint32_t k = 0; k < rows; ++k) {
                std::memcpy(band.data() + k * rowBytes + x * pixelBytes, piece_.data() + k * stride,
                            columns * pixelBytes);
            }
        }
    }

 private:
    tmsize_t ReadPiece(std::uint32_t x, std::uint32_t y, std::uint16_t plane) {
        const auto length = static_cast<tmsize_t>(piece_.size());
        const std::uint32_t number =
            tiled_ ? TIFFComputeTile(tiff_, x, y, 0, plane) : TIFFComputeStrip(tiff_, y, plane);
        // Where the list of places ends too early, libtiff would read the start of the file.
        if (TIFFGetStrileOffset(tiff_, number) == 0) throw DecodeFault("It lacks some pixels.");
        return tiled_ ? TIFFReadEncodedTile(tiff_, number, piece_.data(), length)
                      : TIFFReadEncodedStrip(tiff_, number, piece_.data(), length);
    }

    TIFF* tiff_;
    const Layout& layout_;
    const Source& source_;
    bool tiled_;
    std::uint32_t width_ = 0;
    std::uint32_t height_ = 0;
    std::vector<unsigned char> piece_;
};

void PassPixels(TIFF* tiff, const Layout& layout, const Source& source, PictureSink& sink) {
    Pieces pieces(tiff, layout, source);
    RowWriter writer(layout, sink);
    const std::size_t sampleBytes = layout.Bits / 8;
    const std::size_t rowBytes = std::size_t{layout.Width} * layout.Channels * sampleBytes;
    const bool planar = layout.Planar == PLANARCONFIG_SEPARATE && layout.Channels > 1;
    std::vector<unsigned char> band(rowBytes * std::min(pieces.Height(), layout.Height));
    std::vector<unsigned char> plane(planar ? band.size() / layout.Channels : 0);
    for (std::uint32_t y = 0; y < layout.Height; y += pieces.Height()) {
        const std::uint32_t rows = std::min(pieces.Height(), layout.Height - y);
        if (!planar) {
            pieces.Read(y, 0, layout.Channels, band);
        } else {
            for (std::uint16_t c = 0; c < layout.Channels; ++c) {
                pieces.Read(y, c, 1, plane);
                const std::size_t pixels = std::size_t{layout.Width} * rows;
                for (std::size_t i = 0; i < pixels; ++i) {
                    std::memcpy(band.data() + (i * layout.Channels + c) * sampleBytes,
                                plane.data() + i * sampleBytes, sampleBytes);
                }
            }
        }
        for (std::uint32_t k = 0; k < rows; ++k) writer.Write(y + k, band.data() + k * rowBytes);
    }
}

/// The place of the samples when they lie in the file one after the other, as they are wanted.
std::optional<std::uint64_t> PlaceOfPlain(TIFF* tiff, const Layout& layout,
                                          std::uint64_t fileBytes) {
    std::uint16_t fill = FILLORDER_MSB2LSB;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_FILLORDER, &fill);
    const bool converted = (layout.Bits == 8 && layout.Format == SAMPLEFORMAT_INT) ||
                           layout.Photometric == PHOTOMETRIC_MINISWHITE;
    if (layout.Compression != COMPRESSION_NONE || TIFFIsTiled(tiff) != 0 || converted ||
        fill != FILLORDER_MSB2LSB) {
        return std::nullopt;
    }
    const bool planar = layout.Planar == PLANARCONFIG_SEPARATE && layout.Channels > 1;
    const std::uint64_t rowBytes =
        std::uint64_t{layout.Width} * (planar ? 1U : layout.Channels) * (layout.Bits / 8U);
    std::uint32_t rowsOfStrip = 0;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &rowsOfStrip);
    rowsOfStrip = std::min(rowsOfStrip, layout.Height);
    const std::uint64_t* places = nullptr;
    if (rowsOfStrip == 0 || TIFFGetField(tiff, TIFFTAG_STRIPOFFSETS, &places) == 0 ||
        places == nullptr) {
        return std::nullopt;
    }
    const std::uint32_t strips = TIFFNumberOfStrips(tiff);
    const std::uint32_t stripsOfPlane = (layout.Height - 1) / rowsOfStrip + 1;
    const std::uint32_t planes = planar ? layout.Channels : 1U;
    if (strips != stripsOfPlane * planes) return std::nullopt;
    std::uint64_t end = places[0];
    for (std::uint32_t n = 0; n < strips; ++n) {
        const std::uint32_t above = n % stripsOfPlane * rowsOfStrip;
        if (places[n] != end) return std::nullopt;
        end += rowBytes * std::min(rowsOfStrip, layout.Height - above);
    }
    if (end < places[0] || end > fileBytes) return std::nullopt;
    return places[0];
}

void PassText(TIFF* tiff, std::uint32_t tag, const char* keyword, PictureSink& sink) {
    const char* text = nullptr;
    if (TIFFGetField(tiff, tag, &text) != 0 && text != nullptr && *text != 0) {
        sink.TextCard(keyword, text, {});
    }
}

}  // namespace

void DecodeTiff(std::span<const unsigned char> file, PictureSink& sink) {
    Source source{file, 0, {}};
    const TiffHandle handle = OpenSource(source);
    if (!handle) throw DecodeFault("Its directory cannot be read (" + source.Error + ").");
    TIFF* const tiff = handle.get();
    Layout layout = LayoutOf(tiff);
    RequireSupported(tiff, layout);
    const bool floating = layout.Format == SAMPLEFORMAT_IEEEFP;
    sink.Start({layout.Width, layout.Height, layout.Channels, KindOf(layout),
                floating ? -layout.Bits : layout.Bits, true});
    source.Error.clear();
    if (const auto place = PlaceOfPlain(tiff, layout, file.size())) {
        sink.Stored({*place, TIFFIsBigEndian(tiff) != 0, layout.Planar == PLANARCONFIG_SEPARATE,
                     false, false, false});
    } else {
        PassPixels(tiff, layout, source, sink);
    }

    // The camera's facts are in tags of the file's first directory and of one to which it points.
    CameraFacts facts = ReadExif(file);
    const char* description = nullptr;
    if (facts.Description.empty() && TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &description) &&
        description != nullptr) {
        facts.Description = description;
    }
    std::uint16_t orientation = 0;  // of files whose directories are not those of EXIF
    if (facts.Orientation == 1 && TIFFGetField(tiff, TIFFTAG_ORIENTATION, &orientation) != 0 &&
        orientation >= 1 && orientation <= 8) {
        facts.Orientation = orientation;
    }
    PassCameraFacts(facts, std::max(layout.Width, layout.Height), sink);
    PassText(tiff, TIFFTAG_DATETIME, "DATE", sink);
    PassText(tiff, TIFFTAG_SOFTWARE, "SWCREATE", sink);
}

}  // namespace vestrel
