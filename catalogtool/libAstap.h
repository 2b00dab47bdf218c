// The star databases of ASTAP: files of 5- or 6-byte records, and the older ones of three floats.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "catalog/libCellGrid.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

/// The files of one database, such as "d50_0101.1476" and the like, or "w08_0101.001".
struct AstapDatabase {
    std::string Name;  ///< "d50"; empty when the file names are only numbers
    std::vector<std::filesystem::path> Files;
};

/// The databases that a folder holds, by name.
std::vector<AstapDatabase> AstapDatabasesIn(const std::filesystem::path& folder);

/// The chosen database: that of the folder, when it has only one, or FOLDER/NAME. Throws a
/// `ToolFailure` when there is none, or several and none was named.
AstapDatabase ChosenAstapDatabase(const std::filesystem::path& folderOrName);

/// Passes every star of a file to `sink`: J2000 positions at epoch 2025, without proper motion;
/// magnitudes in Gaia's blue band, to tenths.
/// @return the number of stars Throws a `ToolFailure` when the file is not of that kind or is cut
///   short; the sink may have received stars by then.
std::uint64_t ReadAstapFile(const std::filesystem::path& file, const StarSink& sink);

}  // namespace vestrel
