// The JPEG reader.

#include <algorithm>

#include "fuzz/fuzzSupport.h"
#include "image/libPicture.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    const CheckedImage read = ReadChecked(ReadPictureFile, TextOf(data, size));
    const PlateImage& image = read.Image;
    if (!read.Good) {
        Require(!read.Failure.Text.empty(), "a failed read has a message");
        return 0;
    }
    Require(image.DataOffset == 0 && image.ImageType == ImageType::Jpeg,
            "a picture is known as one");
    for (std::int32_t y = 0; y < std::min(image.Height, WalkedSize); ++y) {
        for (std::int32_t x = 0; x < std::min(image.Width, WalkedSize); ++x) {
            const std::int32_t grey = image.Pixels(x, y);
            Require(grey >= 0 && grey <= 3 * 255, "grey is the sum of three bytes");
        }
    }
    return 0;
}
