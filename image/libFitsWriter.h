// Saves the image as Vestrel's own form of a FITS file, which opens again already solved.
#pragma once

#include <filesystem>

#include "astro/libParallel.h"
#include "image/libImage.h"

namespace vestrel {

/// Writes `image` as a FITS file of 16-bit pixels with a fixed set of 48 cards, the plate solution
/// among them. Programs rely on this form, so it is kept even where it breaks the FITS standard:
/// texts without quotes stay so, zero bytes fill the header, a long value shifts all that follows,
/// and the bytes of a longer old file beyond the new ones stay. `ExportFits` writes standard files.
///
/// Counts are written as stored, their low 16 bits, in the order of the grid's rows.
/// @param progress receives the rows done, after every tenth row
/// @throws std::system_error when the file cannot be written; an older file is then as it was
/// @throws std::invalid_argument when the header's size is not the grid's
void WriteFitsFile(const std::filesystem::path& path, const PlateImage& image,
                   const Progress& progress);

}  // namespace vestrel
