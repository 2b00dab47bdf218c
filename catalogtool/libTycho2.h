// The Tycho-2 stars out of an index file of the Astrometry.net package.
#pragma once

#include <cstdint>
#include <filesystem>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// Hands every star of a little-endian Tycho-2 index file (Debian's
/// astrometry-data-tycho2-07-littleendian) to `sink`: J2000 positions, V magnitudes. Stars without
/// a magnitude come with one that is not a number.
/// @return the number of stars in the file
/// Throws a `ToolFailure` when the file is not such an index, is cut short or contradicts itself;
/// the sink may have got stars by then.
std::uint64_t ReadTycho2Index(const std::filesystem::path& file, const StarSink& sink,
                              ProgressLine& progress);

}  // namespace vestrel
