// Reads the stars of index files of the Astrometry.net package, whatever survey they were made
// from.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

struct IndexStars {
    std::uint64_t Count = 0;
    /// The column of magnitudes; empty when the file has none with a known name. The stars then get
    /// magnitudes from their rank in the file, so that star counts match the average sky.
    std::string MagColumn;
    /// The columns of proper motions; empty when the file has none.
    std::string MotionColumns;
    std::uint64_t Moved = 0;  ///< stars whose proper motion was applied
};

/// The epoch of the positions of index files with proper motions: all of them are made from Gaia's
/// second release.
inline constexpr double IndexEpoch = 2015.5;

/// Passes every star of a little-endian index file to `sink`: J2000 positions, and magnitudes of
/// any band, NaN for stars without one. Where the file has proper motions (pmra and pmdec,
/// milliarcseconds a year) stars are moved to `epoch`; other stars only when they are among the
/// fastest (libFastStars).
/// @param magColumn the column of magnitudes, upper or lower case; empty to search for the usual
///   ones Throws a `ToolFailure` when the file is not such an index, is cut short or contradicts
///   itself; the sink may have received stars by then.
IndexStars ReadIndexFile(const std::filesystem::path& file, const std::string& magColumn,
                         double epoch, const StarSink& sink, ProgressLine& progress);

}  // namespace vestrel
