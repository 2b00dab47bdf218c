// The star files of KStars: records of named fields, behind a header that describes them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// The star files in a folder, recognized by their first bytes; those of the brightest stars first.
std::vector<std::filesystem::path> KStarsFilesIn(const std::filesystem::path& folder);

struct KStarsStars {
    std::uint64_t Rows = 0;
    std::uint64_t Moved = 0;  ///< stars that were moved to the epoch
};

/// Passes every star of a file to `sink`, at its place for an epoch (years). Stars that move
/// between parts of the sky are listed in each of them, and are passed as often.
///
/// A file begins with 124 bytes of text, "SK" (stored by a little-endian machine), a byte for the
/// version, the number of fields (16 bits), and for each field its name (10 bytes), its size in
/// bytes, its type and the factor of its values (32 bits). Then come the number of parts of the
/// sky; for each part its number, the place of its first star in the file and its number of stars;
/// and five bytes about the whole file. Right ascensions are hours, proper motions milliarcseconds
/// a year, along the parallel.
///
/// Positions are taken as those of the year 2000. Of the fast bright stars 7 in 10 are; the others
/// are of 1991.25, and nothing distinguishes them. For nearly all stars, those that move by less
/// than 0.2" a year, the error is at most 1.8". Better places of the fastest stars come from
/// `FastStarAt`. Throws a `ToolFailure` when the file has another format, is cut short or
/// contradicts itself; the sink may already have received stars.
KStarsStars ReadKStarsFile(const std::filesystem::path& file, double epoch, const StarSink& sink,
                           ProgressLine& progress);

/// Whether a file holds only bright stars of the whole sky; false for files that cannot be read.
bool HasBrightStarsOnly(const std::filesystem::path& file);

}  // namespace vestrel
