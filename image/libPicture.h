// Reads JPEG pictures into grey values.
#pragma once

#include <filesystem>

#include "astro/libParallel.h"
#include "image/libImage.h"

namespace vestrel {

/// Reads a JPEG picture into `image`. A grey value is the plain sum of the three colour bytes
/// (0..765); CMYK pictures are converted to three colours first. Row 0 is the picture's top row.
///
/// The camera's facts (EXIF) become cards, but no other fields of the header. The EXIF orientation
/// becomes `Orientation` and a remark.
///
/// Fails on anything that libjpeg cannot turn into red, green and blue, on a picture cut short,
/// and on more than 32767 columns or rows.
/// @param failure what to show when the result is false
bool ReadPictureFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                     ReadFailure& failure);

/// As `ReadPictureFile`, with the same result, in a child process.
bool ReadPictureFileApart(const std::filesystem::path& path, PlateImage& image,
                          const Progress& progress, ReadFailure& failure);

}  // namespace vestrel
