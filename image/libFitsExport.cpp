#include "image/libFitsExport.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>

#include "astro/libStrings.h"
#include "image/libFitsCards.h"
#include "image/libFormats.h"
#include "image/libWorldCoordinates.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// The pixels as the exported file stores them.
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

/// What to throw when a file has another picture than `image` by now.
std::runtime_error ChangedFault(const PlateImage& image) {
    return std::runtime_error("The file " + image.FileName + " is no longer what it was.");
}

/// To be called after the file was read again.
void RefuseChangedFile(const PlateImage& image) {
    if (StampOfFile(PathFromText(image.FileName)) != image.Stamp) throw ChangedFault(image);
}

/// The pixel bytes of the FITS file that `header` was read from; missing ones are 0.
std::vector<unsigned char> ReadPixelBytes(const PlateImage& image) {
    const ImageHeader& header = image.Header;
    const FileHandle file = OpenFile(PathFromText(image.FileName), "rb");
    if (!file) throw ChangedFault(image);
    const auto cards = static_cast<std::size_t>(header.CardCount);
    std::string text(WholeFitsBlocks(cards * FitsCardLength), ' ');
    const std::size_t held = std::fread(text.data(), 1, text.size(), file.get());
    if (held < cards * FitsCardLength) throw ChangedFault(image);
    for (std::size_t i = 1; i <= cards; ++i) {
        if (text.compare((i - 1) * FitsCardLength, FitsCardLength, header.Cards[i]) != 0)
            throw ChangedFault(image);
    }
    const std::size_t pixels =
        static_cast<std::size_t>(header.NAxis1) * static_cast<std::size_t>(header.NAxis2);
    std::vector<unsigned char> bytes(pixels * static_cast<std::size_t>(std::abs(header.BitPix)) /
                                     8);
    (void)!std::fread(bytes.data(), 1, bytes.size(), file.get());
    if (std::ferror(file.get()) != 0) throw ChangedFault(image);
    RefuseChangedFile(image);
    return bytes;
}

/// The value that stands for "no count" in a file of whole numbers.
std::optional<double> BlankValue(const ImageHeader& header) {
    for (std::size_t i = 1; i < static_cast<std::size_t>(header.CardCount); ++i) {
        for (const std::string& card : StandardCards(header.Cards[i])) {
            if (KeywordOfCard(card) == "BLANK") return ParseFitsNumber(ValueOfCard(card));
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

/// The counts of a file in another format, which is read again.
ExportedPixels PixelsOfOthers(const PlateImage& image, bool apart) {
    PlateImage original;
    ReadFailure failure;
    const bool read = ReadImageFile(PathFromText(image.FileName), original, {}, failure, apart);
    if (!read || original.ImageType != image.ImageType || original.Width != image.Width ||
        original.Height != image.Height) {
        throw ChangedFault(image);
    }
    RefuseChangedFile(image);
    bool fits16 = true;
    std::vector<std::int32_t> buffer;
    for (std::int32_t y = 0; y < original.Height && fits16; ++y) {
        const auto row = original.Pixels.Row(y, buffer);
        fits16 = std::all_of(row.begin(), row.end(), [](std::int32_t value) {
            return value >= std::numeric_limits<std::int16_t>::min() &&
                   value <= std::numeric_limits<std::int16_t>::max();
        });
    }
    ExportedPixels pixels{fits16 ? 16 : -32, fits16 ? double(original.DataOffset) : 0, {}};
    pixels.Bytes.reserve(static_cast<std::size_t>(original.Width) *
                         static_cast<std::size_t>(original.Height) * (fits16 ? 2 : 4));
    for (std::int32_t k = 0; k < original.Height; ++k) {
        const std::int32_t y = FirstRowAtTop(original) ? original.Height - 1 - k : k;
        const std::int32_t* row = original.Pixels.Row(y, buffer).data();
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

/// Keywords about the layout of the file or its checksums.
bool IsLayoutKeyword(std::string_view keyword, int bitPix) {
    static constexpr std::string_view layout[] = {
        "SIMPLE", "BITPIX", "NAXIS",   "BSCALE",  "BZERO",    "XTENSION", "PCOUNT",
        "GCOUNT", "GROUPS", "BLOCKED", "NEXTEND", "CHECKSUM", "DATASUM"};
    if (std::find(std::begin(layout), std::end(layout), keyword) != std::end(layout)) return true;
    if (keyword.starts_with("NAXIS") && keyword.size() > 5) return true;
    return keyword == "BLANK" && bitPix < 0;
}

/// The keyword that Vestrel reads from a card. Only the "=" matters to it, whereas by the standard
/// a card that begins with blanks is a comment.
std::string KeywordAsRead(std::string_view card) {
    const std::size_t equals = card.find('=');
    return equals == std::string_view::npos ? std::string(KeywordOfCard(card))
                                            : UpperCase(Trim(card.substr(0, equals)));
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

/// A file's own cards as far as they still hold, with `layout` in front. Of a keyword that
/// stands in several cards the first one holds, by which most programs go; the others become
/// comments.
std::vector<std::string> KeptCards(const ImageHeader& header, int bitPix,
                                   std::vector<std::string> layout) {
    enum class Fate { Kept, Comment, Dropped };
    Fate fate = Fate::Kept;
    bool goesOn = false;  // the last card ends with "&": CONTINUE cards may follow
    bool anyContinued = false;
    std::vector<std::string> kept;
    std::map<std::string, std::string, std::less<>> first;
    for (std::size_t i = 1; i < static_cast<std::size_t>(header.CardCount); ++i) {  // END is last
        const std::string& original = header.Cards[i];
        for (const std::string& card : StandardCards(original)) {
            const std::string_view keyword = KeywordOfCard(card);
            const std::string asRead = KeywordAsRead(card);
            const bool isFirst = MayRepeat(keyword) || first.emplace(keyword, card).second;
            if (IsLayoutKeyword(asRead, bitPix) || IsStaleKeyword(asRead)) {
                fate = Fate::Dropped;
            } else if (keyword == "CONTINUE") {
                // The card that it continues was dropped, or repaired and perhaps cut.
                if (!goesOn && fate != Fate::Dropped) fate = Fate::Comment;
                anyContinued = anyContinued || fate == Fate::Kept;
            } else {
                fate = isFirst ? Fate::Kept : Fate::Comment;
            }
            goesOn = fate == Fate::Kept && card == original && card.find("&'") != std::string::npos;
            if (fate == Fate::Kept) {
                kept.push_back(card);
            } else if (fate == Fate::Comment) {
                for (std::string& line : FitsCommentCards(Trim(card))) {
                    kept.push_back(std::move(line));
                }
            }
        }
    }
    // An original card that says the same about the pixels is kept as it is. Mandatory values must
    // end in column 30; those of BSCALE and BZERO may stand anywhere.
    for (std::string& card : layout) {
        const auto found = first.find(KeywordOfCard(card));
        if (found == first.end()) continue;
        const bool same =
            found->first == "BSCALE" || found->first == "BZERO"
                ? ParseFitsNumber(ValueOfCard(found->second)) == ParseFitsNumber(ValueOfCard(card))
                : found->second.compare(0, 30, card, 0, 30) == 0;
        if (same) card = found->second;
    }
    // Programs older than long texts in the standard look for this card.
    if (anyContinued && !first.contains("LONGSTRN")) {
        layout.push_back(FitsTextCard("LONGSTRN", "OGIP 1.0"));
    }
    layout.insert(layout.end(), kept.begin(), kept.end());
    return layout;
}

/// The values of an SBIG header under FITS keywords, and its lines as comments.
void AppendSbigCards(std::vector<std::string>& cards, const ImageHeader& header) {
    std::set<std::string> present;
    for (std::size_t i = 1; i <= static_cast<std::size_t>(header.CardCount); ++i) {
        const std::string& line = header.Cards[i];
        present.insert(UpperCase(Trim(line.substr(0, line.find('=')))));
    }
    const auto number = [&](const char* line, const char* keyword, double value,
                            const char* comment) {
        if (present.contains(line)) cards.push_back(FitsNumberCard(keyword, value, comment));
    };
    const auto text = [&](const char* line, const std::string& value) {
        if (present.contains(line)) cards.push_back(FitsTextCard(line, value));
    };
    number("EXPOSURE", "EXPTIME", header.ExposureTime, "[s] exposure");
    number("TEMPERATURE", "CCD-TEMP", header.CcdTemperature, "[degC] sensor temperature");
    number("X_PIXEL_SIZE", "XPIXSZ", header.XPixelSize, "[um] pixel width");
    number("Y_PIXEL_SIZE", "YPIXSZ", header.YPixelSize, "[um] pixel height");
    number("E_GAIN", "EGAIN", header.ElectronGain, "electrons per count");
    number("FOCAL_LENGTH", "FOCALLEN", header.FocalLength, "[mm] focal length");
    number("APERTURE", "APTAREA", header.ApertureArea, "[mm2] aperture area");
    number("PEDESTAL", "PEDESTAL", header.Pedestal, "to be added to counts");
    text("FILTER", header.Filter);
    text("OBSERVER", header.Observer);
    for (std::size_t i = 1; i <= static_cast<std::size_t>(header.CardCount); ++i) {
        for (std::string& card : FitsCommentCards("SBIG: " + header.Cards[i])) {
            cards.push_back(std::move(card));
        }
    }
}

/// The solution under the keywords that Vestrel reads, for the row order of the exported file.
void AppendOwnCards(std::vector<std::string>& cards, const PlateImage& image, int bitPix) {
    const ImageHeader& header = image.Header;
    // Only floating-point images are turned over when they are read.
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
                                           const std::vector<std::string>& coordinateCards,
                                           const std::vector<std::string>& moreCards, bool apart) {
    if (coordinateCards.empty()) throw std::runtime_error("The image has no solution.");
    const ExportedPixels pixels =
        image.ImageType == ImageType::Fits ? PixelsOfFits(image) : PixelsOfOthers(image, apart);

    std::vector<std::string> cards = LayoutCards(image, pixels);
    if (image.ImageType == ImageType::Sbig) {
        AppendSbigCards(cards, image.Header);
    } else {
        cards = KeptCards(image.Header, pixels.BitPix, std::move(cards));
    }
    if (image.ImageType == ImageType::Decoded &&
        (image.Counts.Zero != 0 || image.Counts.Factor != 1)) {
        for (std::string& card : FitsCommentCards(
                 "Counts are (value - " + NumberText(image.Counts.Zero) + ") x " +
                 NumberText(image.Counts.Factor) + " of the file that was exported.")) {
            cards.push_back(std::move(card));
        }
    }
    // An image that was exported before already has these comments.
    std::erase_if(cards, [&coordinateCards](const std::string& card) {
        return std::find(coordinateCards.begin(), coordinateCards.end(), card) !=
               coordinateCards.end();
    });
    cards.insert(cards.end(), coordinateCards.begin(), coordinateCards.end());
    AppendOwnCards(cards, image, pixels.BitPix);
    cards.insert(cards.end(), moreCards.begin(), moreCards.end());

    const std::string header = FitsHeaderBlocks(cards);
    std::vector<unsigned char> bytes;
    bytes.reserve(header.size() + WholeFitsBlocks(pixels.Bytes.size()));
    bytes.assign(header.begin(), header.end());
    bytes.insert(bytes.end(), pixels.Bytes.begin(), pixels.Bytes.end());
    bytes.resize(WholeFitsBlocks(bytes.size()), 0);
    return bytes;
}

}  // namespace vestrel
