// The star files of KStars: records of named fields, behind a header that describes them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// The star files that a folder holds, those of the brightest stars first: what starts like one.
std::vector<std::filesystem::path> KStarsFilesIn(const std::filesystem::path& folder);

struct KStarsStars {
    std::uint64_t Rows = 0;
    std::uint64_t Moved = 0;  ///< stars that were carried to the epoch
};

/// Hands every star of a file to `sink`, where it is at an epoch (years). Those that cross parts of
/// the sky stand in each of them, and come as often.
///
/// A file begins with 124 bytes of text, "SK" (stored by a little-endian machine), a byte for the
/// version, the number of fields (16 bits), and of each field its name (10 bytes), its size in
/// bytes, its type and by what its values are multiplied (32 bits). Then come the number of parts
/// of the sky, of each part its number, the place of its first star in the file and how many it
/// has, and five bytes about the whole. Right ascensions are hours, proper motions milliarcseconds
/// a year, along the parallel.
///
/// Positions are taken to be of the year 2000. Of the bright stars' fast ones 7 in 10 are; the
/// others are of 1991.25, and nothing tells them apart: stars of less than 0.2" a year, nearly all,
/// come to be off by 1.8" at most. The places of the fastest are known better (`FastStarAt`).
/// Throws a `ToolFailure` when the file is not of that kind, is cut short or contradicts itself;
/// the sink may have got stars by then.
KStarsStars ReadKStarsFile(const std::filesystem::path& file, double epoch, const StarSink& sink,
                           ProgressLine& progress);

/// Whether a file has bright stars only, of all the sky; false for what cannot be read.
bool HasBrightStarsOnly(const std::filesystem::path& file);

}  // namespace vestrel
