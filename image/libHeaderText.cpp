#include "image/libHeaderText.h"

#include "astro/libStrings.h"

namespace vestrel {

std::vector<std::string> HeaderLines(const PlateImage& image) {
    const ImageHeader& header = image.Header;
    std::vector<std::string> lines;
    const auto appendCards = [&] {
        for (const std::string& remark : image.Remarks) lines.push_back("  " + remark);
        constexpr int shownCards = 299;
        for (int i = 1; i <= header.CardCount && i <= shownCards; ++i) {
            lines.push_back("  " + header.Cards[static_cast<std::size_t>(i)]);
        }
    };
    if (image.ImageType == ImageType::None) return {};
    if (image.ImageType == ImageType::Jpeg) {
        // There are no fields to sum up, only what the camera says.
        appendCards();
        return lines;
    }
    if (header.CardCount == 0) return {};
    constexpr std::size_t ruleLength = 75;
    lines = {
        "  Image Size = " + std::to_string(header.NAxis1) + " X " + std::to_string(header.NAxis2),
        "  Image Size = " + RoundedText(header.ImageSizeX, 3) + "'  X  " +
            RoundedText(header.ImageSizeY, 3) + "'",
        "  Bits per pixel = " + std::to_string(header.BitPix),
        "  Pedestal = " + std::to_string(header.Pedestal),
        "  Pixel Size = " + NumberText(header.XPixelSize) + " X " + NumberText(header.YPixelSize) +
            " microns",
        "  CCD Temperature = " + RoundedText(header.CcdTemperature, 2) + " C",
        "  Exposure Time = " + RoundedText(header.ExposureTime, 2) + " sec",
        "  Gain = " + RoundedText(header.ElectronGain, 2) + " e-/ADU",
        "  Focal Length = " + RoundedText(header.FocalLength, 2) + " mm",
        "  Aperture Area = " + RoundedText(header.ApertureArea, 2) + " mm^2",
        "  Filter = " + header.Filter,
        "  Observer = " + header.Observer,
        "  ObjectRA = " + header.ObjectRA,
        "  ObjectDec = " + header.ObjectDec,
        std::string(ruleLength, '-'),
        "  Complete Header Follows:",
        " "};
    appendCards();
    return lines;
}

}  // namespace vestrel
