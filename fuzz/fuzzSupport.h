// Shared by the fuzz targets: the check that ends a process, and the checks of every image that is
// read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "image/libFormats.h"
#include "tests/testSupport.h"

/// Called by libFuzzer and driver.cpp for one input after the other.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace vestrel {

/// Reports a broken promise: unless `holds`, writes `what` to standard error and ends the process.
void Require(bool holds, std::string_view what);

/// The input as text.
inline std::string_view TextOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// A folder that only this process uses. Its files are written again for every input.
const std::filesystem::path& InputFolder();

/// The result of reading an input. `ReadChecked` has checked what all readers promise: sizes that
/// agree, empty spare cells, finite numbers, a message for a failure.
struct CheckedImage {
    PlateImage Image;
    bool Good = false;
    ReadFailure Failure;
};
CheckedImage ReadChecked(ImageReader read, std::string_view bytes);

/// Saves an image that a reader made and opens it again: pixels, texts and the plate solution must
/// have survived. Large images, and headers with texts too long for a card, are not checked.
void CheckSaved(const PlateImage& image);

/// Checks of pixels stop at this many rows and columns, as forged headers announce far more.
inline constexpr std::int32_t WalkedSize = 256;

}  // namespace vestrel
