#include "fuzz/fuzzSupport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

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
    Require(image.Pixels.Row(0).size() == static_cast<std::size_t>(image.Width) + 1,
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

}  // namespace vestrel
