// The decoders of every format, chosen by content as for any file; some run in a child process.

#include "fuzz/fuzzSupport.h"
#include "image/libFormats.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    const CheckedImage read = ReadChecked(
        [](const auto& path, PlateImage& image, const Progress& progress, ReadFailure& failure) {
            return ReadImageFile(path, image, progress, failure);
        },
        TextOf(data, size));
    Require(read.Good || !read.Failure.Text.empty(), "a failed read has a message");
    if (!read.Good) return 0;
    Require(read.Image.Width > 0 && read.Image.Height > 0 && !read.Image.Format.empty(),
            "a picture has pixels and a format");
    return 0;
}
