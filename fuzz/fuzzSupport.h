// What the fuzz targets share: the check that ends a process, and what holds for every image read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "image/libImage.h"
#include "tests/testSupport.h"

/// What libFuzzer and driver.cpp call with one input after the other.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace vestrel {

/// Ends the process with a line on standard error unless `holds`: that is how a target reports.
void Require(bool holds, std::string_view what);

/// The input as text.
inline std::string_view TextOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// A folder of the process's own. Its files are written anew for every input.
const std::filesystem::path& InputFolder();

/// What a reader of image files made of an input. The contract that all readers share has been
/// checked: sizes that agree, empty spare cells, finite numbers, a message for a failure.
struct CheckedImage {
    PlateImage Image;
    bool Good = false;
    ReadFailure Failure;
};
using ImageReader = bool (*)(const std::filesystem::path&, PlateImage&, const Progress&,
                             ReadFailure&);
CheckedImage ReadChecked(ImageReader read, std::string_view bytes);

/// Saves an image that a reader made and opens it again: pixels, texts and the plate solution must
/// have survived. Large images, and headers with texts too long for a card, are let pass.
void CheckSaved(const PlateImage& image);

/// Pixels are walked up to this many rows and columns: forged headers promise far more.
inline constexpr std::int32_t WalkedSize = 256;

}  // namespace vestrel
