// The star databases of ASTAP: files of 5- or 6-byte records, and the older ones of three floats.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// The files of one database: "d50_0101.1476" and its sisters, or "w08_0101.001".
struct AstapDatabase {
    std::string Name;  ///< "d50"; empty when the files have numbers only
    std::vector<std::filesystem::path> Files;
};

/// The databases that a folder holds, by name.
std::vector<AstapDatabase> AstapDatabasesIn(const std::filesystem::path& folder);

/// The one that is meant: that of the folder, when it has just one, or FOLDER/NAME.
/// Throws a `ToolFailure` when there is none, or several and none was named.
AstapDatabase ChosenAstapDatabase(const std::filesystem::path& folderOrName);

/// Hands every star of a file to `sink`: positions on the J2000 axes at epoch 2025, without proper
/// motion; magnitudes of Gaia's blue band, in tenths.
/// @return the number of stars
/// Throws a `ToolFailure` when the file is not of that kind or is cut short; the sink may have got
/// stars by then.
std::uint64_t ReadAstapFile(const std::filesystem::path& file, const StarSink& sink);

}  // namespace vestrel
