#include "image/libFitsExport.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "astro/libStrings.h"
#include "image/libFitsCards.h"
#include "image/libPicture.h"
#include "image/libSBIG.h"
#include "image/libWorldCoordinates.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr std::size_t cardLength = 80;
constexpr std::size_t blockLength = 2880;

std::size_t WholeBlocks(std::size_t length) {
    return (length + blockLength - 1) / blockLength * blockLength;
}

/// The pixels as they stand in the file.
struct ExportedPixels {
    int BitPix = 16;
    double BZero = 0;
    std::vector<unsigned char> Bytes;
};

void AppendBigEndian(std::vector<unsigned char>& bytes, std::uint32_t bits, int count) {
    for (int i = count - 1; i >= 0; --i) {
        bytes.push_back(static_cast<unsigned char>(bits >> 8 * i & 0xFF));
    }
}

void AppendFloat(std::vector<unsigned char>& bytes, double value) {
    AppendBigEndian(bytes, std::bit_cast<std::uint32_t>(static_cast<float>(value)), 4);
}

/// The pixel bytes of the FITS file that `header` was read from; missing ones are 0.
std::vector<unsigned char> ReadPixelBytes(const PlateImage& image) {
    const ImageHeader& header = image.Header;
    const auto changed = [&image] {
        return std::runtime_error("The file " + image.FileName + " is no longer what it was.");
    };
    const FileHandle file = OpenFile(PathFromText(image.FileName), "rb");
    if (!file) throw changed();
    const auto cards = static_cast<std::size_t>(header.CardCount);
    std::string text(WholeBlocks(cards * cardLength), ' ');
    const std::size_t held = std::fread(text.data(), 1, text.size(), file.get());
    if (held < cards * cardLength) throw changed();
    for (std::size_t i = 1; i <= cards; ++i) {
        if (text.compare((i - 1) * cardLength, cardLength, header.Cards[i]) != 0) throw changed();
    }
    const std::size_t pixels =
        static_cast<std::size_t>(header.NAxis1) * static_cast<std::size_t>(header.NAxis2);
    std::vector<unsigned char> bytes(pixels * static_cast<std::size_t>(std::abs(header.BitPix)) /
                                     8);
    (void)!std::fread(bytes.data(), 1, bytes.size(), file.get());
    if (std::ferror(file.get()) != 0) throw changed();
    return bytes;
}

/// The value that stands for "no count" in a file of whole numbers.
std::optional<double> BlankValue(const ImageHeader& header) {
    for (std::size_t i = 1; i <= static_cast<std::size_t>(header.CardCount); ++i) {
        const std::string_view card = header.Cards[i];
        if (card.starts_with("BLANK   =")) {
            return ParseNumber(card.substr(9, card.find('/', 9) - 9));
        }
    }
    return std::nullopt;
}

/// BZERO + BSCALE × stored, as floating-point numbers.
std::vector<unsigned char> ScaledPixelBytes(const ImageHeader& header,
                                            const std::vector<unsigned char>& stored) {
    const std::optional<double> blank = BlankValue(header);
    const std::size_t pixelBytes = static_cast<std::size_t>(std::abs(header.BitPix)) / 8;
    std::vector<unsigned char> bytes;
    bytes.reserve(stored.size() / pixelBytes * 4);
    for (std::size_t i = 0; i + pixelBytes <= stored.size(); i += pixelBytes) {
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < pixelBytes; ++k) bits = bits << 8 | stored[i + k];
        double value = bits;
        if (header.BitPix == 16) value = static_cast<std::int16_t>(bits);
        if (header.BitPix == -32) value = static_cast<double>(std::bit_cast<float>(bits));
        const bool none = header.BitPix > 0 && blank == value;
        AppendFloat(bytes, none ? std::numeric_limits<double>::quiet_NaN()
                                : header.BZero + header.BScale * value);
    }
    return bytes;
}

ExportedPixels PixelsOfFits(const PlateImage& image) {
    const ImageHeader& header = image.Header;
    ExportedPixels pixels{header.BitPix, header.BZero, ReadPixelBytes(image)};
    // 0 stands for a BSCALE that was not in the file.
    if (header.BScale != 0 && header.BScale != 1) {
        pixels = {-32, 0, ScaledPixelBytes(header, pixels.Bytes)};
    }
    return pixels;
}

/// The counts of an SBIG file or a picture, which are read again.
ExportedPixels PixelsOfOthers(const PlateImage& image) {
    PlateImage original;
    ReadFailure failure;
    const std::filesystem::path path = PathFromText(image.FileName);
    const bool read = image.ImageType == "SBIG" ? ReadSbigFile(path, original, {}, failure)
                                                : ReadPictureFile(path, original, {}, failure);
    if (!read || original.Width != image.Width || original.Height != image.Height) {
        throw std::runtime_error("The file " + image.FileName + " is no longer what it was.");
    }
    bool fits16 = true;
    for (std::int32_t y = 0; y < original.Height && fits16; ++y) {
        const auto row = original.Pixels.Row(y);
        fits16 = std::all_of(row.begin(), row.end(), [](std::int32_t value) {
            return value >= std::numeric_limits<std::int16_t>::min() &&
                   value <= std::numeric_limits<std::int16_t>::max();
        });
    }
    ExportedPixels pixels{fits16 ? 16 : -32, fits16 ? double(original.DataOffset) : 0, {}};
    pixels.Bytes.reserve(static_cast<std::size_t>(original.Width) *
                         static_cast<std::size_t>(original.Height) * (fits16 ? 2 : 4));
    for (std::int32_t y = original.Height - 1; y >= 0; --y) {
        const std::int32_t* row = original.Pixels.Row(y).data();
        for (std::int32_t x = 0; x < original.Width; ++x) {
            if (fits16) {
                AppendBigEndian(pixels.Bytes, static_cast<std::uint32_t>(row[x]), 2);
            } else {
                AppendFloat(pixels.Bytes, double(row[x]) + original.DataOffset);
            }
        }
    }
    return pixels;
}

/// Keywords that speak of the layout of the file or of its checksums.
bool IsLayoutKeyword(std::string_view keyword, int bitPix) {
    static constexpr std::string_view layout[] = {
        "SIMPLE", "BITPIX", "NAXIS",   "BSCALE",  "BZERO",    "XTENSION", "PCOUNT",
        "GCOUNT", "GROUPS", "BLOCKED", "NEXTEND", "CHECKSUM", "DATASUM"};
    if (std::find(std::begin(layout), std::end(layout), keyword) != std::end(layout)) return true;
    if (keyword.starts_with("NAXIS") && keyword.size() > 5) return true;
    return keyword == "BLANK" && bitPix < 0;
}

/// The cards that say how the pixels are stored.
std::vector<std::string> LayoutCards(const PlateImage& image, const ExportedPixels& pixels) {
    return {FitsFlagCard("SIMPLE", true, "standard FITS"),
            FitsNumberCard("BITPIX", pixels.BitPix, "bits per pixel"),
            FitsNumberCard("NAXIS", 2, "axes"),
            FitsNumberCard("NAXIS1", image.Width, "columns"),
            FitsNumberCard("NAXIS2", image.Height, "rows, from the bottom of the picture up"),
            FitsNumberCard("BSCALE", 1, "counts are as stored"),
            FitsNumberCard("BZERO", pixels.BZero, "count of a stored 0")};
}

/// A FITS file's own cards as far as they still hold, with `layout` in front. Of a keyword that
/// stands in several cards, the last one, which is the one that readers go by.
std::vector<std::string> KeptCards(const ImageHeader& header, int bitPix,
                                   std::vector<std::string> layout) {
    const auto isValue = [](std::string_view card) { return card.substr(8, 2) == "= "; };
    std::vector<std::string> standard;
    for (std::size_t i = 1; i < static_cast<std::size_t>(header.CardCount); ++i) {  // END is last
        for (std::string& card : StandardCards(header.Cards[i])) {
            standard.push_back(std::move(card));
        }
    }
    std::map<std::string_view, std::size_t> last;
    for (std::size_t i = 0; i < standard.size(); ++i) {
        if (isValue(standard[i])) last[KeywordOfCard(standard[i])] = i;
    }
    // Where the original says the same of its pixels, it is said in its words. The mandatory values
    // must end in column 30; those of BSCALE and BZERO may stand anywhere.
    const auto value = [](std::string_view card) {
        const std::string_view field = card.substr(10);
        return field.substr(0, field.find('/'));
    };
    for (std::string& card : layout) {
        const auto found = last.find(KeywordOfCard(card));
        if (found == last.end()) continue;
        const std::string& original = standard[found->second];
        const bool same = found->first == "BSCALE" || found->first == "BZERO"
                              ? ParseNumber(value(original)) == ParseNumber(value(card))
                              : original.compare(0, 30, card, 0, 30) == 0;
        if (same) card = original;
    }
    bool dropped = false;
    for (std::size_t i = 0; i < standard.size(); ++i) {
        const std::string_view keyword = KeywordOfCard(standard[i]);
        if (keyword == "CONTINUE" && dropped) continue;
        // Programs from before the standard took long texts over look for this sign of them.
        if (keyword == "CONTINUE" && last.emplace("LONGSTRN", i).second) {
            layout.push_back(FitsTextCard("LONGSTRN", "OGIP 1.0"));
        }
        dropped = isValue(standard[i]) && (last[keyword] != i || IsLayoutKeyword(keyword, bitPix) ||
                                           IsStaleKeyword(keyword));
        if (!dropped) layout.push_back(standard[i]);
    }
    return layout;
}

/// What an SBIG header says, in FITS keywords, and its own lines as comments.
void AppendSbigCards(std::vector<std::string>& cards, const ImageHeader& header) {
    const auto number = [&cards](const char* keyword, double value, const char* comment) {
        if (value != 0) cards.push_back(FitsNumberCard(keyword, value, comment));
    };
    const auto text = [&cards](const char* keyword, const std::string& value, const char* comment) {
        if (value != "0") cards.push_back(FitsTextCard(keyword, value, comment));
    };
    number("EXPTIME", header.ExposureTime, "[s] exposure");
    number("CCD-TEMP", header.CcdTemperature, "[degC] sensor temperature");
    number("XPIXSZ", header.XPixelSize, "[um] pixel width");
    number("YPIXSZ", header.YPixelSize, "[um] pixel height");
    number("EGAIN", header.ElectronGain, "electrons per count");
    number("FOCALLEN", header.FocalLength, "[mm] focal length");
    number("APTAREA", header.ApertureArea, "[mm2] aperture area");
    text("FILTER", header.Filter, "filter");
    text("OBSERVER", header.Observer, "observer");
    for (std::size_t i = 1; i <= static_cast<std::size_t>(header.CardCount); ++i) {
        for (std::string& card : FitsCommentCards("SBIG: " + header.Cards[i])) {
            cards.push_back(std::move(card));
        }
    }
}

/// The solution in the keywords that Vestrel reads, for the rows as the exported file has them.
void AppendOwnCards(std::vector<std::string>& cards, const PlateImage& image, int bitPix) {
    const ImageHeader& header = image.Header;
    // On reading, floating-point images alone are turned over.
    const bool turned = FirstRowAtTop(image) != (bitPix == -32);
    const double sign = turned ? -1 : 1;
    const double v0 = header.PlateTransform[1][2];
    const auto& map = header.PlateTransform;
    const std::string comment = "plate solution of Vestrel";
    cards.push_back(FitsFlagCard("NH_PM", true, comment));
    const std::pair<const char*, double> numbers[] = {
        {"NH_RAREF", header.RaRef},
        {"NH_DEREF", header.DecRef},
        {"NH_PS", header.PlateScale},
        {"NH_A", map[0][0]},
        {"NH_B", map[0][1]},
        {"NH_C", sign * map[1][0]},
        {"NH_D", sign * map[1][1]},
        {"NH_U0", map[0][2]},
        {"NH_V0", turned ? image.Height - 1 - v0 : v0},
        {"IMAGESZX", header.ImageSizeX},
        {"IMAGESZY", header.ImageSizeY}};
    for (const auto& [keyword, value] : numbers) {
        cards.push_back(FitsNumberCard(keyword, value, comment));
    }
}

}  // namespace

std::vector<unsigned char> FitsExportBytes(const PlateImage& image,
                                           const std::vector<std::string>& moreCards) {
    const std::optional<WorldCoordinates> coordinates = WorldCoordinatesOf(image);
    if (!coordinates) throw std::runtime_error("The image has no solution.");
    const ExportedPixels pixels =
        image.ImageType == "FITS" ? PixelsOfFits(image) : PixelsOfOthers(image);

    std::vector<std::string> cards = LayoutCards(image, pixels);
    if (image.ImageType == "FITS") {
        cards = KeptCards(image.Header, pixels.BitPix, std::move(cards));
    }
    if (image.ImageType == "SBIG") AppendSbigCards(cards, image.Header);
    for (std::string& card : WorldCoordinateCards(*coordinates)) cards.push_back(std::move(card));
    AppendOwnCards(cards, image, pixels.BitPix);
    cards.insert(cards.end(), moreCards.begin(), moreCards.end());

    const std::string header = FitsHeaderBlocks(cards);
    std::vector<unsigned char> bytes;
    bytes.reserve(header.size() + WholeBlocks(pixels.Bytes.size()));
    bytes.assign(header.begin(), header.end());
    bytes.insert(bytes.end(), pixels.Bytes.begin(), pixels.Bytes.end());
    bytes.resize(WholeBlocks(bytes.size()), 0);
    return bytes;
}

}  // namespace vestrel
