// Saves the image as Vestrel's own form of a FITS file, which opens again already solved.
#pragma once

#include <filesystem>

#include "astro/libParallel.h"
#include "image/libImage.h"

namespace vestrel {

/// Writes `image` as a FITS file of 16-bit pixels with a fixed set of 48 cards, the plate solution
/// among them. The form is kept for the programs that have come to rely on it, where the FITS
/// standard has it otherwise too: texts without quotes stay so, zero bytes fill the header, a long
/// value shifts what follows, and bytes of a longer file beyond the new ones stay. `ExportFits`
/// writes for everybody else.
///
/// Counts are written as stored, their low 16 bits, in the order of the grid's rows.
/// @param progress told of rows done after every tenth row
/// @throws std::system_error when the file cannot be written; an older file is then as it was
/// @throws std::invalid_argument when the header's size is not the grid's
void WriteFitsFile(const std::filesystem::path& path, const PlateImage& image,
                   const Progress& progress);

}  // namespace vestrel
