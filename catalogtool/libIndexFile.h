// Reads the stars of index files of the Astrometry.net package, whatever survey they were made
// from.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

struct IndexStars {
    std::uint64_t Count = 0;
    /// The column of magnitudes; empty when the file has none with a known name. The stars then get
    /// magnitudes from their rank in the file, so that star counts match the average sky.
    std::string MagColumn;
    /// How proper motions were treated, for the manifest; empty when the file has none.
    std::string Motions;
    std::uint64_t Moved = 0;  ///< stars whose proper motion was applied
};

struct IndexOptions {
    std::string MagColumn;            ///< upper or lower case; empty to search for the usual ones
    double Epoch = 2000;              ///< (a year) to which stars with proper motions are moved
    std::optional<double> FileEpoch;  ///< of the file's positions, when it is known
};

/// The epochs of positions in files with proper motions that do not give it: those with Gaia's
/// magnitudes are made from its second release, as the public series 5200 are; older surveys list
/// the places of stars with motions for 2000.
inline constexpr double GaiaIndexEpoch = 2015.5;
inline constexpr double OtherIndexEpoch = 2000;

/// Passes every star of a little-endian index file to `sink`: J2000 positions, and magnitudes of
/// any band, NaN for stars without one. Where the file has proper motions (as pmra and pmdec,
/// milliarcseconds a year unless its units say otherwise) stars are moved to the epoch; other stars
/// only when they are among the fastest (libFastStars). Throws a `ToolFailure` when the file is not
/// such an index, is cut short or contradicts itself; the sink may have received stars by then.
IndexStars ReadIndexFile(const std::filesystem::path& file, const IndexOptions& options,
                         const StarSink& sink, ProgressLine& progress);

}  // namespace vestrel
