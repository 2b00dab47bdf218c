#include "fuzz/fuzzSupport.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "astro/libStrings.h"
#include "image/libFITS.h"
#include "image/libFitsWriter.h"

namespace vestrel {

namespace {

void RequireFinite(const ImageHeader& header) {
    for (const double number :
         {header.BScale, header.BZero, header.ExposureTime, header.CcdTemperature,
          header.XPixelSize, header.YPixelSize, header.ElectronGain, header.FocalLength,
          header.ApertureDiameter, header.ApertureArea, header.DataMax, header.PlateScale,
          header.RaRef, header.DecRef, header.ImageSizeX, header.ImageSizeY}) {
        Require(std::isfinite(number), "header numbers are finite");
    }
    for (const auto& row : header.PlateTransform) {
        for (const double number : row) Require(std::isfinite(number), "the transform is finite");
    }
}

/// The texts of a header that a saved file has.
auto SavedTexts(const ImageHeader& h) {
    return std::array<std::string_view, 11>{
        h.Object,  h.Telescope,      h.Instrument,     h.Observer,
        h.DateObs, h.SoftwareCreate, h.SoftwareModify, h.SbigStandardVersion,
        h.Filter,  h.ObjectRA,       h.ObjectDec};
}

/// Numbers that a saved file has with 15 digits.
auto SavedNumbers(const ImageHeader& h) {
    const auto& t = h.PlateTransform;
    return std::array<double, 9>{h.RaRef, h.DecRef, h.PlateScale, t[0][0], t[0][1],
                                 t[0][2], t[1][0],  t[1][1],      t[1][2]};
}

}  // namespace

void Require(bool holds, std::string_view what) {
    if (holds) return;
    std::fprintf(stderr, "Does not hold: %.*s\n", static_cast<int>(what.size()), what.data());
    std::abort();
}

const std::filesystem::path& InputFolder() {
    static const TemporaryFolder folder;
    return folder.Path;
}

CheckedImage ReadChecked(ImageReader read, std::string_view bytes) {
    static const std::filesystem::path file = InputFolder() / "image";
    WriteFile(file, bytes);
    CheckedImage result;
    PlateImage& image = result.Image;
    const Progress progress = [](int done, int total) {
        Require(done >= 0 && done <= total, "progress lies in 0..total");
    };
    result.Good = read(file, image, progress, result.Failure);
    RequireFinite(image.Header);
    Require(image.Header.Cards.size() == ImageHeader::MaxCards, "there is room for all cards");
    if (!result.Good) return result;

    Require(result.Failure.Text.empty(), "a good read has no message");
    Require(image.Width >= 0 && image.Height >= 0, "sizes are not negative");
    Require(image.Width == image.Header.NAxis1 && image.Height == image.Header.NAxis2,
            "the header has the image's size");
    Require(image.Header.CardCount >= 0 && image.Header.CardCount < ImageHeader::MaxCards,
            "the cards have room");
    std::vector<std::int32_t> buffer;
    Require(image.Pixels.Row(0, buffer).size() == static_cast<std::size_t>(image.Width) + 1,
            "the grid has the image's size");
    Require(image.Pixels(image.Width, image.Height) == 0, "the spare corner is empty");
    for (std::int32_t y = 0; y < std::min(image.Height, WalkedSize); ++y) {
        Require(image.Pixels(image.Width, y) == 0, "the spare column is empty");
    }
    for (std::int32_t x = 0; x < std::min(image.Width, WalkedSize); ++x) {
        Require(image.Pixels(x, image.Height) == 0, "the spare row is empty");
    }
    return result;
}

void CheckSaved(const PlateImage& image) {
    constexpr std::int64_t mostPixels = 4096;
    constexpr std::size_t longestText = 68;
    if (std::int64_t{image.Width} * image.Height > mostPixels) return;
    const auto texts = SavedTexts(image.Header);
    if (std::any_of(texts.begin(), texts.end(),
                    [](std::string_view text) { return text.size() > longestText; })) {
        return;
    }
    static const std::filesystem::path file = InputFolder() / "saved.fit";
    WriteFile(file, {});
    WriteFitsFile(file, image, nullptr);
    PlateImage again;
    ReadFailure failure;
    Require(ReadFitsFile(file, again, nullptr, failure), "what is saved opens again");
    Require(again.Width == image.Width && again.Height == image.Height, "the size is saved");
    for (std::int32_t y = 0; y < image.Height; ++y) {
        for (std::int32_t x = 0; x < image.Width; ++x) {
            const int low = static_cast<std::int16_t>(image.Pixels(x, y) & 0xFFFF);
            Require(again.Pixels(x, y) == std::max(low, -again.DataOffset), "pixels are saved");
        }
    }
    const auto textsAgain = SavedTexts(again.Header);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        Require(textsAgain[i] == Trim(texts[i].substr(0, texts[i].find('/'))), "texts are saved");
    }
    const auto numbers = SavedNumbers(image.Header);
    const auto numbersAgain = SavedNumbers(again.Header);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        Require(std::fabs(numbersAgain[i] - numbers[i]) <= 1e-14 * std::fabs(numbers[i]),
                "the solution is saved");
    }
    Require(again.Header.PlateMatched == image.Header.PlateMatched, "solved stays solved");
}

}  // namespace vestrel
