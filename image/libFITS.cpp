#include "image/libFITS.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <variant>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libFiles.h"

namespace vestrel {

namespace {

constexpr std::size_t cardLength = 80;
constexpr std::size_t blockLength = 2880;
/// Counts must fit 32 bits after the offset has been added, with room for what is added later.
constexpr std::int64_t largestOffset = 2'000'000'000;
/// A file must hold a byte for so many pixels that it lacks, if they cost memory.
constexpr std::size_t missingPixelsPerByte = 2048;
constexpr const char* generalFailure = "Unable to read the image file.";

/// Where a keyword's value goes. A flag is "T" or "F"; a `Negated` one is stored with its sign
/// turned; the value of a `Quiet` one is ignored when it is not numeric.
struct Negated {
    std::int16_t ImageHeader::*Field;
};
struct Rounded {
    std::int16_t ImageHeader::*Field;
};
struct Quiet {
    double ImageHeader::*Field;
};
struct TransformCell {
    int Row;
    int Column;
};
struct HistoryText {};
using Target = std::variant<std::int16_t ImageHeader::*, std::int32_t ImageHeader::*,
                            double ImageHeader::*, std::string ImageHeader::*, bool ImageHeader::*,
                            Negated, Rounded, Quiet, TransformCell, HistoryText>;
struct KeywordTarget {
    std::string_view Keyword;
    Target Where;
};

const KeywordTarget* FindKeyword(std::string_view keyword) {
    using H = ImageHeader;
    static const KeywordTarget table[] = {
        {"NAXIS", &H::NAxis},
        {"NAXIS1", &H::NAxis1},
        {"NAXIS2", &H::NAxis2},
        {"BITPIX", &H::BitPix},
        {"BZERO", &H::BZero},
        {"BSCALE", &H::BScale},
        {"SIMPLE", &H::Simple},
        {"PEDESTAL", Rounded{&H::Pedestal}},
        {"BIAS", Negated{&H::Pedestal}},
        {"DATAMAX", &H::DataMax},
        {"OBJECT", &H::Object},
        {"TELESCOP", &H::Telescope},
        {"INSTRUME", &H::Instrument},
        {"OBSERVER", &H::Observer},
        {"DATE-OBS", &H::DateObs},
        {"HISTORY", HistoryText{}},
        {"EXPTIME", &H::ExposureTime},
        {"CCD-TEMP", &H::CcdTemperature},
        {"XPIXSZ", &H::XPixelSize},
        {"YPIXSZ", &H::YPixelSize},
        {"XBINNING", &H::XBinning},
        {"YBINNING", &H::YBinning},
        {"XORGSUBF", &H::XSubframeOrigin},
        {"YORGSUBF", &H::YSubframeOrigin},
        {"EGAIN", &H::ElectronGain},
        {"FOCALLEN", &H::FocalLength},
        {"APTDIA", &H::ApertureDiameter},
        {"APTAREA", &H::ApertureArea},
        {"CBLACK", &H::BlackLevel},
        {"CWHITE", &H::WhiteLevel},
        {"SWCREATE", &H::SoftwareCreate},
        {"SWMODIFY", &H::SoftwareModify},
        {"SBSTDVER", &H::SbigStandardVersion},
        {"FILTER", &H::Filter},
        {"OBJCTRA", &H::ObjectRA},
        {"OBJCTDEC", &H::ObjectDec},
        {"IMAGESZX", Quiet{&H::ImageSizeX}},
        {"IMAGESZY", Quiet{&H::ImageSizeY}},
        {"NH_PM", &H::PlateMatched},
        {"NH_RAREF", &H::RaRef},
        {"NH_DEREF", &H::DecRef},
        {"NH_PS", &H::PlateScale},
        {"NH_A", TransformCell{0, 0}},
        {"NH_B", TransformCell{0, 1}},
        {"NH_U0", TransformCell{0, 2}},
        {"NH_C", TransformCell{1, 0}},
        {"NH_D", TransformCell{1, 1}},
        {"NH_V0", TransformCell{1, 2}},
    };
    const auto* const found =
        std::find_if(std::begin(table), std::end(table),
                     [keyword](const KeywordTarget& entry) { return entry.Keyword == keyword; });
    return found == std::end(table) ? nullptr : found;
}

/// A card's keyword and value, both trimmed; the value ends before the first "/".
struct SplitCard {
    std::string Keyword;
    std::string_view Value;
};

SplitCard SplitHeaderCard(std::string_view card) {
    card = card.substr(0, cardLength);
    const std::size_t equals = card.find('=');
    // Without "=" the keyword has 8 columns, and the value starts in column 10.
    const bool assigned = equals != std::string_view::npos;
    const std::size_t keywordLength = assigned ? equals : 8;
    const std::size_t valueStart = std::min(assigned ? equals + 1 : 9, card.size());
    const std::string_view value = card.substr(valueStart);
    return {UpperCase(Trim(card.substr(0, keywordLength))), Trim(value.substr(0, value.find('/')))};
}

/// Stores a card's value in its field.
struct StoreValue {
    ImageHeader& Header;
    std::string_view Keyword;
    std::string_view Value;
    std::string& Error;

    /// The value as a number; an error is set when it is not one.
    std::optional<double> Number() const {
        const auto number = ParseNumber(Value);
        if (!number) Error = "Non-numeric " + std::string(Keyword) + " parameter";
        if (number && !std::isfinite(*number)) throw std::range_error("number too large");
        return number;
    }
    template <typename Integer>
    void Whole(Integer ImageHeader::*field, double sign) const {
        const auto number = Number();
        if (!number) return;
        bool fits = false;
        if constexpr (sizeof(Integer) == 2) {
            fits = RoundToInt16(sign * *number, Header.*field);
        } else {
            fits = RoundToInt32(sign * *number, Header.*field);
        }
        if (!fits) throw std::range_error("integer too large");
    }

    void operator()(std::int16_t ImageHeader::*field) const { Whole(field, 1); }
    void operator()(std::int32_t ImageHeader::*field) const { Whole(field, 1); }
    void operator()(Rounded rounded) const { Whole(rounded.Field, 1); }
    void operator()(Negated negated) const { Whole(negated.Field, -1); }
    void operator()(double ImageHeader::*field) const {
        if (const auto number = Number()) Header.*field = *number;
    }
    void operator()(Quiet quiet) const {
        (*this)(quiet.Field);
        Error.clear();
    }
    void operator()(TransformCell cell) const {
        if (const auto number = Number()) Header.PlateTransform[cell.Row][cell.Column] = *number;
    }
    void operator()(std::string ImageHeader::*field) const { Header.*field = Value; }
    void operator()(HistoryText) const { Header.History.append("|").append(Value); }
    void operator()(bool ImageHeader::*field) const {
        if (Value == "T") {
            Header.*field = true;
        } else if (Value == "F") {
            Header.*field = false;
        } else {
            Error = "Nonvalid " + std::string(Keyword) + " parameter";
        }
    }
};

/// Reads the cards up to END and moves to the first byte of the data.
bool ReadHeader(std::FILE* file, ImageHeader& header, ReadFailure& failure) {
    int n = 0;
    std::size_t blockPosition = 0;
    std::string keyword;
    while (keyword != "END") {
        ++n;
        blockPosition = (blockPosition + cardLength) % blockLength;
        char text[cardLength];
        if (std::fread(text, 1, cardLength, file) != cardLength) {
            throw std::runtime_error("the file ends inside the header");
        }
        const std::string card(text, cardLength);
        if (n < ImageHeader::MaxCards) header.Cards[static_cast<std::size_t>(n)] = card;
        std::string error;
        keyword = ParseHeaderCard(card, header, error);
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
        char filler[blockLength];
        const std::size_t rest = blockLength - blockPosition;
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

/// Converts one row of pixel bytes; `floor` and `ceiling` bound the stored values.
void ConvertRow8(const std::uint8_t* bytes, std::int32_t* row, std::int32_t width,
                 std::int32_t floor) {
    for (std::int32_t x = 0; x < width; ++x) row[x] = std::max<std::int32_t>(bytes[x], floor);
}

void ConvertRow16(const std::uint8_t* bytes, std::int32_t* row, std::int32_t width,
                  std::int32_t floor) {
    for (std::int32_t x = 0; x < width; ++x) {
        const auto high = static_cast<std::int8_t>(bytes[2 * x]);
        row[x] = std::max(high * 256 + bytes[2 * x + 1], floor);
    }
}

/// The machine's own floats equal `DecodeFloat32` but for the smallest, which round to 0 both ways,
/// and for infinities and NaN, which are refused both ways.
void ConvertRowFloat(const std::uint8_t* bytes, std::int32_t* row, std::int32_t width,
                     std::int32_t floor, std::int32_t ceiling) {
    constexpr double smallest = std::numeric_limits<std::int32_t>::min();
    constexpr double largest = std::numeric_limits<std::int32_t>::max();
    bool allFit = true;
    for (std::int32_t x = 0; x < width; ++x, bytes += 4) {
        const std::uint32_t bits = std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                                   std::uint32_t{bytes[2]} << 8 | bytes[3];
        double value = RoundHalfEven(static_cast<double>(std::bit_cast<float>(bits)));
        if (!(value >= smallest && value <= largest)) {
            allFit = false;
            value = 0;
        }
        row[x] = std::min(std::max(static_cast<std::int32_t>(value), floor), ceiling);
    }
    if (!allFit) throw std::range_error("pixel too large");
}

void ReadPixels(std::FILE* file, std::int64_t fileLength, PlateImage& image,
                const Progress& progress) {
    const ImageHeader& header = image.Header;
    if (header.NAxis1 < 0 || header.NAxis2 < 0) throw std::range_error("negative size");
    std::int32_t offset = 0;
    if (!RoundToInt32(header.BZero, offset) || std::abs(std::int64_t{offset}) > largestOffset) {
        throw std::range_error("BZERO too large");
    }

    // One read of what the file holds, however much its header promises.
    const std::size_t pixelBytes = static_cast<std::size_t>(std::abs(header.BitPix)) / 8;
    const std::size_t rowBytes = static_cast<std::size_t>(header.NAxis1) * pixelBytes;
    const std::size_t wanted = rowBytes * static_cast<std::size_t>(header.NAxis2);
    const std::size_t longest =
        fileLength < 0 ? wanted : std::min(wanted, static_cast<std::size_t>(fileLength));
    const auto data = std::make_unique_for_overwrite<std::uint8_t[]>(longest);
    const std::size_t held = std::fread(data.get(), 1, longest, file);

    const std::int32_t floor = -offset;
    const std::int32_t ceiling = 65535 - offset;
    // Zero bytes that convert to 0 are what a new grid holds already.
    const bool missingCostNothing = floor <= 0 && (header.BitPix != -32 || ceiling >= 0);
    const std::size_t missing = (wanted - held) / pixelBytes;
    if (!missingCostNothing && missing / missingPixelsPerByte > held + blockLength) {
        throw std::runtime_error("next to no pixels");
    }

    StartPixels(image, offset);

    std::vector<std::uint8_t> paddedRow;
    for (std::int32_t r = 0; r < image.Height; ++r) {
        const std::size_t start = static_cast<std::size_t>(r) * rowBytes;
        const std::uint8_t* bytes = data.get() + start;
        if (start + rowBytes > held) {
            if (start >= held && missingCostNothing) break;
            paddedRow.assign(rowBytes, 0);
            if (start < held) std::copy_n(bytes, held - start, paddedRow.begin());
            bytes = paddedRow.data();
        }
        switch (header.BitPix) {
            case 8:
                ConvertRow8(bytes, image.Pixels.Row(r).data(), image.Width, floor);
                break;
            case 16:
                ConvertRow16(bytes, image.Pixels.Row(r).data(), image.Width, floor);
                break;
            default:
                ConvertRowFloat(bytes, image.Pixels.Row(image.Height - 1 - r).data(), image.Width,
                                floor, ceiling);
        }
        if (r % 10 == 0 && progress) progress(r, image.Height);
    }
    if (progress) progress(0, image.Height);
}

}  // namespace

bool ReadFitsFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                  ReadFailure& failure) {
    failure = {};
    ClearHeader(image.Header);
    try {
        const FileHandle file = OpenFile(path, "rb");
        if (!file) throw std::runtime_error("cannot be opened");
        const std::int64_t fileLength = FileLength(file.get());
        if (!ReadHeader(file.get(), image.Header, failure)) return false;
        if (!CheckHeader(image.Header, failure)) return false;
        ReadPixels(file.get(), fileLength, image, progress);
        return true;
    } catch (const std::exception&) {
        failure = {generalFailure, DefaultTitle};
        return false;
    }
}

std::string ParseHeaderCard(std::string_view card, ImageHeader& header, std::string& error) {
    error.clear();
    SplitCard split = SplitHeaderCard(card);
    if (const KeywordTarget* target = FindKeyword(split.Keyword)) {
        std::visit(StoreValue{header, split.Keyword, split.Value, error}, target->Where);
    }
    return std::move(split.Keyword);
}

double DecodeFloat32(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3) {
    const double sign = (b0 & 0x80) != 0 ? -1 : 1;
    const int exponent = 2 * (b0 & 0x7F) + (b1 >> 7);
    const auto mantissa = static_cast<float>(1 + ((b1 & 0x7F) + b2 / 256.0 + b3 / 65536.0) / 128);
    return sign * std::ldexp(static_cast<double>(mantissa), exponent - 127);
}

}  // namespace vestrel
