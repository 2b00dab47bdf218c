// Builds a catalog from the sources that a command line names.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "catalogtool/libStarColumns.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

struct BuildOptions {
    std::string Catalog;
    std::string Tycho2;
    std::vector<std::string> Indexes;
    std::vector<std::string> Astap;
    std::vector<std::string> KStars;
    std::vector<std::string> Tables;
    std::string Bright;
    std::optional<double> MagMin;
    std::optional<double> MagMax;
    std::string RaUnit = "auto";
    std::vector<std::string> Where;
    std::optional<double> Epoch;
    ProgressStyle Progress = ProgressStyle::Terminal;
    StarTableOptions Table;  ///< its `Epoch` is the epoch of the catalog
};

/// Reads the sources, writes the cells and puts the folder in the place of the old one. Prints the
/// result of each source. @throws ToolFailure when it fails; the old catalog is then still in place
void RunBuild(const BuildOptions& options);

}  // namespace vestrel
