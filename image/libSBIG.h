// Reads SBIG camera files: a text header and 16-bit rows, raw or delta-compressed.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "astro/libParallel.h"
#include "image/libImage.h"

namespace vestrel {

/// Reads a whole SBIG file into `image`: row 0 is the top one, `DataOffset` 32768.
///
/// The header's values are converted to the units of FITS keywords, and the pedestal is reduced by
/// 100. Sums of deltas may leave the range of 16 bits: such counts are kept, even negative ones.
///
/// @param progress receives the rows done, after every twentieth row
/// @param failure  what to show when the result is false; empty for a file under 1000 bytes
/// @return true when the whole image was read. After false, `image` holds what had been set
///         before the failure and is not to be used.
bool ReadSbigFile(const std::filesystem::path& path, PlateImage& image, const Progress& progress,
                  ReadFailure& failure);

/// Parses one header line, "keyword = value", into `header`; a line without "=" is ignored.
///
/// @param error empty when the line was good, else the message; the field is then unchanged
/// @return the line's keyword in upper case; empty when there is none
/// @throws std::range_error when a number does not fit its field
std::string ParseSbigLine(std::string_view line, ImageHeader& header, std::string& error);

}  // namespace vestrel
