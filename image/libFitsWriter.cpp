#include "image/libFitsWriter.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "astro/libStrings.h"
#include "image/libFitsCards.h"
#include "platform/libFiles.h"

namespace vestrel {

namespace {

/// The bytes that 48 cards leave free in two blocks. They stay as many when a long value makes the
/// cards longer.
constexpr std::size_t headerFiller = 1920;

/// The cards, one after the other.
class CardText {
 public:
    void Card(std::string_view keyword, std::string_view value) {
        std::string card(keyword);
        card.resize(std::max(card.size(), keywordLength), ' ');
        card.append("= ").append(value).append(" /");
        Add(std::move(card));
    }
    void Whole(std::string_view keyword, std::int32_t value) {
        Card(keyword, std::to_string(value));
    }
    void Real(std::string_view keyword, double value) { Card(keyword, NumberText(value)); }
    void Rounded(std::string_view keyword, double value, int decimals) {
        Card(keyword, RoundedText(value, decimals));
    }
    void Flag(std::string_view keyword, bool value) { Card(keyword, value ? "T" : "F"); }
    std::string End() {
        Add("END");
        return std::move(text_);
    }

 private:
    static constexpr std::size_t keywordLength = 8;
    void Add(std::string card) {
        card.resize(std::max(card.size(), FitsCardLength), ' ');
        text_ += card;
    }
    std::string text_;
};

std::string HeaderText(const ImageHeader& header) {
    CardText cards;
    cards.Flag("SIMPLE", true);
    cards.Whole("BITPIX", 16);
    cards.Whole("NAXIS", 2);
    cards.Whole("NAXIS1", header.NAxis1);
    cards.Whole("NAXIS2", header.NAxis2);
    cards.Card("OBJECT", header.Object);
    cards.Card("TELESCOP", header.Telescope);
    cards.Card("INSTRUME", header.Instrument);
    cards.Card("OBSERVER", header.Observer);
    cards.Card("DATE-OBS", header.DateObs);
    cards.Rounded("BSCALE", header.BScale, 6);
    cards.Rounded("BZERO", header.BZero, 6);
    cards.Card("HISTORY", "0");
    cards.Rounded("EXPTIME", header.ExposureTime, 2);
    cards.Rounded("CCD-TEMP", header.CcdTemperature, 2);
    cards.Rounded("XPIXSZ", header.XPixelSize, 3);
    cards.Rounded("YPIXSZ", header.YPixelSize, 3);
    cards.Whole("XBINNING", header.XBinning);
    cards.Whole("YBINNING", header.YBinning);
    cards.Whole("XORGSUBF", header.XSubframeOrigin);
    cards.Whole("YORGSUBF", header.YSubframeOrigin);
    cards.Rounded("EGAIN", header.ElectronGain, 4);
    cards.Rounded("FOCALLEN", header.FocalLength, 4);
    cards.Rounded("APTDIA", header.ApertureDiameter, 4);
    cards.Rounded("APTAREA", header.ApertureArea, 4);
    cards.Whole("CBLACK", header.BlackLevel);
    cards.Whole("CWHITE", header.WhiteLevel);
    cards.Whole("PEDESTAL", header.Pedestal);
    cards.Real("DATAMAX", header.DataMax);
    cards.Card("SWCREATE", header.SoftwareCreate);
    cards.Card("SWMODIFY", header.SoftwareModify);
    cards.Card("SBSTDVER", header.SbigStandardVersion);
    cards.Card("FILTER", header.Filter);
    cards.Card("OBJCTRA", header.ObjectRA);
    cards.Card("OBJCTDEC", header.ObjectDec);
    cards.Rounded("IMAGESZX", header.ImageSizeX, 4);
    cards.Rounded("IMAGESZY", header.ImageSizeY, 4);
    cards.Flag("NH_PM", header.PlateMatched);
    cards.Real("NH_RAREF", header.RaRef);
    cards.Real("NH_DEREF", header.DecRef);
    cards.Real("NH_PS", header.PlateScale);
    cards.Real("NH_A", header.PlateTransform[0][0]);
    cards.Real("NH_B", header.PlateTransform[0][1]);
    cards.Real("NH_C", header.PlateTransform[1][0]);
    cards.Real("NH_D", header.PlateTransform[1][1]);
    cards.Real("NH_U0", header.PlateTransform[0][2]);
    cards.Real("NH_V0", header.PlateTransform[1][2]);
    return cards.End();
}

}  // namespace

void WriteFitsFile(const std::filesystem::path& path, const PlateImage& image,
                   const Progress& progress) {
    const std::int32_t width = image.Header.NAxis1;
    const std::int32_t height = image.Header.NAxis2;
    if (width != image.Width || height != image.Height || image.Pixels.Empty()) {
        throw std::invalid_argument("There is no whole image to save.");
    }
    const std::string header = HeaderText(image.Header);
    const std::size_t dataStart = header.size() + headerFiller;
    const std::size_t dataLength =
        std::size_t{2} * static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<unsigned char> bytes(dataStart + WholeFitsBlocks(dataLength));
    std::copy(header.begin(), header.end(), bytes.begin());
    unsigned char* next = bytes.data() + dataStart;
    std::vector<std::int32_t> buffer;
    for (std::int32_t y = 0; y < height; ++y) {
        const std::int32_t* row = image.Pixels.Row(y, buffer).data();
        for (std::int32_t x = 0; x < width; ++x) {
            const auto stored = static_cast<std::uint32_t>(row[x]);
            *next++ = static_cast<unsigned char>(stored >> 8 & 0xFF);
            *next++ = static_cast<unsigned char>(stored & 0xFF);
        }
        if (y % 10 == 0 && progress) progress(y, height);
    }
    ReplaceFileStart(path, bytes);
}

}  // namespace vestrel
