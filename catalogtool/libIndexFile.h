// The stars of index files of the Astrometry.net package, whatever survey they were made from.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

struct IndexStars {
    std::uint64_t Count = 0;
    /// The column of magnitudes; empty when the file has none known by name. Then the stars have
    /// magnitudes by their rank in the file, such that there are as many up to each as the sky has
    /// on the average.
    std::string MagColumn;
};

/// Hands every star of a little-endian index file to `sink`: J2000 positions, and magnitudes of any
/// band. Stars without a magnitude come with one that is not a number.
/// @param magColumn the column of magnitudes, any case; empty to look for the usual ones
/// Throws a `ToolFailure` when the file is not such an index, is cut short or contradicts itself;
/// the sink may have got stars by then.
IndexStars ReadIndexFile(const std::filesystem::path& file, const std::string& magColumn,
                         const StarSink& sink, ProgressLine& progress);

}  // namespace vestrel
