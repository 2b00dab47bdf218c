// Exports of images with any header: the standard FITS files open again, solved, with the same
// counts.

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "fuzz/fuzzSupport.h"
#include "image/libFITS.h"
#include "image/libFitsExport.h"
#include "image/libSBIG.h"
#include "image/libWorldCoordinates.h"
#include "platform/libFiles.h"

namespace vestrel {
namespace {

constexpr std::int64_t mostPixels = 4096;

/// Opens bytes as a FITS or else an SBIG file. @return false when they are neither, or have too
/// many pixels
bool Open(std::string_view bytes, PlateImage& image) {
    // An export reads the file again, and chooses the reader by the name when the content does not
    // tell the format.
    const std::filesystem::path file = InputFolder() / "original.fits";
    const std::filesystem::path sbigFile = InputFolder() / "original.sbig";
    WriteFile(file, bytes);
    ReadFailure failure;
    image.FileName = file.string();
    image.ImageType = ImageType::Fits;
    if (!ReadFitsFile(file, image, nullptr, failure)) {
        WriteFile(sbigFile, bytes);
        image.FileName = sbigFile.string();
        image.ImageType = ImageType::Sbig;
        if (!ReadSbigFile(file, image, nullptr, failure)) return false;
    }
    image.Stamp = StampOfFile(image.FileName);
    return std::int64_t{image.Width} * image.Height <= mostPixels;
}

/// Gives the header a solution: most inputs have none and could not be exported.
void Solve(ImageHeader& header) {
    header.PlateMatched = true;
    header.PlateScale = 206264.81;
    header.RaRef = 1.25;
    header.DecRef = -0.5;
    const double transform[2][3] = {{0.5, 0.125, 3}, {0.125, -0.5, 2}};
    std::copy_n(&transform[0][0], 6, &header.PlateTransform[0][0]);
}

std::string Exported(const PlateImage& image) {
    const auto bytes =
        FitsExportBytes(image, WorldCoordinateCards(WorldCoordinatesOf(image).value()), {});
    return {bytes.begin(), bytes.end()};
}

void CheckCards(const std::string& bytes, const ImageHeader& header) {
    Require(bytes.size() % 2880 == 0, "blocks are whole");
    const std::size_t length = static_cast<std::size_t>(header.CardCount) * 80;
    Require(std::all_of(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length),
                        [](char c) { return c >= ' ' && c <= '~'; }),
            "cards are printable");
}

/// Scaled counts may be blank, or too large to be read again.
bool IsScaled(const ImageHeader& header) {
    return header.BScale != 0 && header.BScale != 1;
}

/// Requires equal counts, except for scaled ones and sums of SBIG deltas out of range.
void CheckCounts(const PlateImage& image, const PlateImage& again) {
    const bool turned = image.ImageType == ImageType::Sbig && again.Header.BitPix != -32;
    Require(again.Width == image.Width && again.Height == image.Height, "the size stays");
    for (std::int32_t y = 0; y < image.Height && !IsScaled(image.Header); ++y) {
        for (std::int32_t x = 0; x < image.Width; ++x) {
            const std::int64_t count = std::int64_t{image.Pixels(x, y)} + image.DataOffset;
            const std::int32_t row = turned ? image.Height - 1 - y : y;
            const std::int64_t countAgain = std::int64_t{again.Pixels(x, row)} + again.DataOffset;
            Require(countAgain == std::max<std::int64_t>(count, 0) || count > 65535, "counts stay");
        }
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    PlateImage image;
    if (!Open(TextOf(data, size), image)) return 0;
    if (!WorldCoordinatesOf(image)) Solve(image.Header);
    const std::string first = Exported(image);
    constexpr std::size_t shortEnough = std::size_t{2900} * 80;
    if (first.size() > shortEnough) return 0;
    PlateImage again;
    const bool opens = Open(first, again) && again.ImageType == ImageType::Fits;
    Require(opens || IsScaled(image.Header), "what is exported opens");
    if (!opens) return 0;
    Require(WorldCoordinatesOf(again).has_value(), "it opens solved");
    CheckCards(first, again.Header);
    CheckCounts(image, again);

    // The first export rounds numbers to 15 digits; further ones must change nothing.
    const std::string second = Exported(again);
    PlateImage third;
    Require(Open(second, third), "it opens once more");
    Require(Exported(third) == second, "exporting again changes nothing");
    return 0;
}
