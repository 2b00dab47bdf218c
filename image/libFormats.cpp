#include "image/libFormats.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

#include "astro/libStrings.h"
#include "image/libApartDecoder.h"
#include "image/libDecoder.h"
#include "image/libFITS.h"
#include "image/libForeignFormats.h"
#include "image/libPicture.h"
#include "image/libPictureBuilder.h"
#include "image/libSBIG.h"
#include "platform/libFileView.h"
#include "platform/libFiles.h"
#include "platform/libModule.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

using namespace std::literals;

bool IsFits(std::string_view start) {
    return start.starts_with("SIMPLE  ="sv) || start.starts_with("\x1F\x8B"sv);
}
bool IsSbig(std::string_view start) {
    return start.starts_with("ST-"sv) && start.substr(0, 80).find('\n') != std::string_view::npos;
}
bool IsJpeg(std::string_view start) {
    return start.starts_with("\xFF\xD8\xFF"sv);
}
bool IsPng(std::string_view start) {
    return start.starts_with("\x89PNG\r\n\x1A\n"sv);
}
bool IsTiff(std::string_view start) {
    return start.starts_with("II*\0"sv) || start.starts_with("MM\0*"sv) ||
           start.starts_with("II+\0"sv) || start.starts_with("MM\0+"sv);
}
bool IsXisf(std::string_view start) {
    return start.starts_with("XISF0100"sv);
}
/// The raw formats of most cameras are variants of TIFF.
bool IsRaw(std::string_view start) {
    return IsTiff(start) || start.starts_with("FUJIFILMCCD-RAW"sv) ||
           start.starts_with("IIU\0"sv) || start.starts_with("IIRO"sv) ||
           start.starts_with("IIRS"sv) || start.starts_with("MMOR"sv) ||
           start.substr(std::min<std::size_t>(4, start.size())).starts_with("ftypcrx"sv);
}

constexpr ImageFormat formats[] = {
    {"FITS", " FIT FITS FTS FZ GZ ", IsFits, ReadFitsFile, ReadFitsFile, " FIT FITS FTS ",
     ImageType::Fits, "fits"},
    {"SBIG", " SBIG SBI ", IsSbig, ReadSbigFile, ReadSbigFile, " SBIG SBI ", ImageType::Sbig,
     nullptr},
    // The misspelt extension has always been accepted, and callers rely on it.
    {"JPEG", " JPG JEPG JPEG JPE JFIF ", IsJpeg, ReadPictureFile, ReadPictureFileApart,
     " JPG JEPG ", ImageType::Jpeg, nullptr},
    {"PNG", " PNG ", IsPng, nullptr, nullptr, "", ImageType::Decoded, "png"},
    {"TIFF", " TIF TIFF ", IsTiff, nullptr, nullptr, "", ImageType::Decoded, "tiff"},
    {"XISF", " XISF ", IsXisf, nullptr, nullptr, "", ImageType::Decoded, "xisf"},
    {"camera RAW", " DNG CR2 CR3 CRW NEF NRW ARW SR2 RAF ORF RW2 PEF SRW 3FR IIQ ", IsRaw, nullptr,
     nullptr, "", ImageType::Decoded, "raw"},
};

std::string ExtensionOf(std::string_view path) {
    const std::size_t dot = path.rfind('.');
    return dot == std::string_view::npos ? "" : UpperCase(path.substr(dot + 1));
}

bool Lists(std::string_view extensions, const std::string& extension) {
    return !extension.empty() && extension.find(' ') == std::string::npos &&
           extensions.find(" " + extension + " ") != std::string_view::npos;
}

/// The functions that a module exports. `fault` stays empty when the picture was decoded.
using ModuleVersion = const char*();
using ModuleEntry = void(const unsigned char* bytes, std::size_t length, PictureSink& sink,
                         std::string& fault);

/// The function that decodes a format; null when there is none, and then `reason` is a sentence.
ModuleEntry* EntryOf(const ImageFormat& format, std::string& reason) {
    const std::string module = std::string("decode-") + format.Decoder;
    if (!HasModule(module)) {
        reason = "This Vestrel was built without a decoder for it: save it as 16-bit FITS or JPEG.";
        return nullptr;
    }
    auto* const version =
        reinterpret_cast<ModuleVersion*>(ModuleFunction(module, "VestrelDecoderVersion", reason));
    auto* const entry =
        reinterpret_cast<ModuleEntry*>(ModuleFunction(module, "VestrelDecode", reason));
    if (!reason.empty()) {
        reason = "Its decoder cannot be loaded: " + reason;
    } else if (std::string_view(version()) != VESTREL_DECODER_VERSION) {
        reason = "Its decoder is of another version of Vestrel: install Vestrel anew.";
    }
    return reason.empty() ? entry : nullptr;
}

/// Returns the range of the samples, if they have more than 16 bits.
NumberRange Decode(const ImageFormat& format, const std::filesystem::path& path, PlateImage& image,
                   const Progress& progress) {
    std::string reason;
    ModuleEntry* const entry = EntryOf(format, reason);
    if (entry == nullptr) throw DecodeFault(reason);
    constexpr std::int64_t longest = std::int64_t{4} << 30;
    const FileHandle file = OpenFile(path, "rb");
    const std::int64_t length = file ? FileLength(file.get()) : -1;
    if (length < 0 || length > longest) {
        throw DecodeFault("It cannot be opened, or has more than 4 GiB.");
    }
    std::setvbuf(file.get(), nullptr, _IONBF, 0);  // it is read in large pieces
    const FileView view(file.get(), static_cast<std::uint64_t>(length));
    PictureBuilder builder(image, progress,
                           [&file](std::uint64_t place, std::span<unsigned char> to) {
                               return SeekFile(file.get(), place) &&
                                      std::fread(to.data(), 1, to.size(), file.get()) == to.size();
                           });
    DecodeApart(
        [&](PictureSink& sink) {
            std::string fault;
            entry(view.Bytes().data(), view.Bytes().size(), sink, fault);
            return fault;
        },
        builder);
    builder.Finish();
    image.ImageType = ImageType::Decoded;
    image.Format = format.Name;
    return builder.Range();
}

/// As `Decode`. The `cause` of the first failure stays.
bool TryDecoder(const ImageFormat& format, const std::filesystem::path& path, PlateImage& image,
                const Progress& progress, std::string& cause) {
    std::string fault;
    try {
        Decode(format, path, image, progress);
        return true;
    } catch (const std::bad_alloc&) {
        fault = "There is not enough memory for it.";
    } catch (const std::exception& error) {
        fault = error.what();
    }
    if (cause.empty())
        cause = std::string("This ") + format.Name + " file cannot be read. " + fault;
    return false;
}

/// Why a file cannot be opened, in a sentence; empty when it can be.
std::string OpeningFault(const std::filesystem::path& path) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::file_status there = fs::status(path, ignored);
    if (fs::exists(there) && !fs::is_regular_file(there) && !fs::is_directory(there)) {
        return "It is a pipe or a device, and no file.";
    }
    errno = 0;
    if (OpenFile(path, "rb")) return {};
    return "It cannot be opened: " + std::generic_category().message(errno) + ".";
}

void ForgetDecoding(PlateImage& image) {
    image.Counts = {};
    image.LargestCount = 65535;
    image.TopRowFirst = true;
    image.Orientation = 1;
    image.Remarks.clear();
}

constexpr std::int32_t smallestSkySide = 100;

/// Whether an image has whole numbers with a scale of its own, which the reader of counts leaves
/// out: with it the sky of a fine scale may lie far below 0.
bool IsScaled(const ImageHeader& header) {
    return header.BitPix > 0 && header.BScale != 0 && header.BScale != 1;
}

/// Whether the reader of counts can have lost the picture: next to nothing above 2, or nearly all
/// at 0. Of scaled whole numbers, half at 0.
bool MayHaveLostTheSky(const PlateImage& image) {
    const bool scaled = IsScaled(image.Header);
    if ((image.Header.BitPix != -32 && !scaled) || image.Width < smallestSkySide ||
        image.Height < smallestSkySide) {
        return false;
    }
    const std::int64_t needed = scaled ? 2 : 10;  // one pixel in so many above 0 shows the sky
    const std::int64_t pixels = std::int64_t{image.Width} * image.Height;
    constexpr std::int64_t pixelsPerStray = 50000;
    std::int64_t notZero = 0;
    std::int64_t aboveTwo = 0;
    for (std::int32_t y = 0; y < image.Height; ++y) {
        std::int32_t others = 0;
        std::int32_t above = 0;
        image.Pixels.VisitRow(y, [&](auto row) {
            for (std::int32_t x = 0; x < image.Width; ++x) {
                const std::int32_t count = row[x] + image.DataOffset;
                others += count != 0 ? 1 : 0;
                above += count > 2 ? 1 : 0;
            }
        });
        notZero += others;
        aboveTwo += above;
        // Most images need a look at their first rows only.
        if (aboveTwo > pixels / pixelsPerStray && notZero * needed >= pixels) return false;
    }
    return true;
}

/// Decodes an image that did not hold counts. The image stays as it was read when that fails, or
/// when the decoder finds counts too that the reader did not have to scale.
void DecodeLostSky(const ImageFormat& format, const std::filesystem::path& path, PlateImage& image,
                   const Progress& progress) {
    PlateImage again;
    try {
        Decode(format, path, again, progress);
    } catch (const std::exception&) {
        return;
    }
    if (again.Counts.Factor != 1 || IsScaled(image.Header)) image = std::move(again);
}

/// Decodes at once what the reader of counts would surely lose: an image without a number that
/// rounds to more than 2. False when it is another one; then `image` is as it was.
bool DecodeFractions(const ImageFormat& format, const std::filesystem::path& path,
                     PlateImage& image, const Progress& progress) {
    if (!MayHoldFractions(path)) return false;
    PlateImage decoded;
    try {
        const NumberRange range = Decode(format, path, decoded, progress);
        const bool lost = range.Least >= 0 && range.Greatest <= 2 && decoded.Counts.Factor != 1 &&
                          std::min(decoded.Width, decoded.Height) >= smallestSkySide;
        if (lost) image = std::move(decoded);
        return lost;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

std::span<const ImageFormat> ImageFormats() {
    return formats;
}

const ImageFormat* OwnFormatOfName(std::string_view path) {
    const std::string extension = ExtensionOf(path);
    for (const ImageFormat& format : formats) {
        if (Lists(format.OwnExtensions, extension)) return &format;
    }
    return nullptr;
}

std::string RefusalCauseOf(const std::filesystem::path& path) {
    if (std::string fault = OpeningFault(path); !fault.empty()) return fault;
    char start[ForeignLength];
    const FileHandle file = OpenFile(path, "rb");
    return ForeignFormatCause({start, file ? std::fread(start, 1, sizeof start, file.get()) : 0});
}

std::vector<const ImageFormat*> FormatsOfFile(const std::filesystem::path& path) {
    const std::string extension = ExtensionOf(TextFromPath(path));
    // Files named .bmp have always been refused, whatever they hold, and callers rely on that. An
    // image named .kel would be replaced by its own result file.
    if (extension == "BMP" || extension == "KEL") return {};
    char start[RecognisedLength];
    std::size_t length = 0;
    if (const FileHandle file = OpenFile(path, "rb")) {
        length = std::fread(start, 1, sizeof start, file.get());
    }
    std::vector<const ImageFormat*> found;
    const auto add = [&](bool byContent, bool byName) {
        for (const ImageFormat& format : formats) {
            if ((!byContent || format.Recognises({start, length})) &&
                (!byName || Lists(format.Extensions, extension)) &&
                std::find(found.begin(), found.end(), &format) == found.end()) {
                found.push_back(&format);
            }
        }
    };
    add(true, true);
    add(true, false);
    if (found.empty()) add(false, true);
    return found;
}

bool ReadImageFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                   ReadFailure& failure, bool apart) {
    failure = {};
    ForgetDecoding(image);
    const FileStamp stamp = StampOfFile(path);
    const ImageFormat* const own = OwnFormatOfName(TextFromPath(path));
    bool shown = false;
    const auto read = [&](const ImageFormat& format) {
        if (format.Type == ImageType::Fits && DecodeFractions(format, path, image, progress)) {
            return true;
        }
        ReadFailure said;
        if (!(apart ? format.ReadApart : format.Read)(path, image, progress, said)) {
            if (!shown) failure = said;
            shown = true;
            return false;
        }
        image.ImageType = format.Type;
        image.Format = format.Name;
        return true;
    };
    bool good = false;
    const ImageFormat* reader = own;
    if (own != nullptr) good = read(*own);
    std::string cause;
    if (!good) {
        for (const ImageFormat* format : FormatsOfFile(path)) {
            reader = format;
            good =
                (format->Read != nullptr && format != own && read(*format)) ||
                (format->Decoder != nullptr && TryDecoder(*format, path, image, progress, cause));
            if (good) break;
        }
    }
    if (!good) {
        if (own == nullptr) {
            if (cause.empty()) cause = failure.Cause.empty() ? failure.Text : failure.Cause;
            failure = {"File type is not supported", DefaultTitle, {}};
        }
        // What it is says more than what a reader of something else met in it.
        const std::string foreign = RefusalCauseOf(path);
        if (!foreign.empty() || failure.Cause.empty()) {
            failure.Cause = foreign.empty() ? cause : foreign;
        }
        return false;
    }
    if (image.ImageType == ImageType::Fits && MayHaveLostTheSky(image)) {
        DecodeLostSky(*reader, path, image, progress);
    }
    image.Stamp = stamp;
    failure = {};
    return true;
}

std::string ReadableFormats() {
    std::string list;
    for (const ImageFormat& format : formats) {
        std::string reason;
        if (format.Read == nullptr && EntryOf(format, reason) == nullptr) continue;
        list.append(list.empty() ? "" : ", ").append(format.Name);
    }
    return list;
}

}  // namespace vestrel
