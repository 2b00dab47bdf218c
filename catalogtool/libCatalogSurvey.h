// Reads all cell files of a catalog: what they hold, and what is wrong with them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "catalogtool/libCatalogCoverage.h"
#include "catalogtool/libCatalogManifest.h"
#include "catalogtool/libToolReport.h"

namespace vestrel {

struct CatalogSurvey {
    std::uint64_t Stars = 0;
    std::size_t CellsWithStars = 0;
    std::vector<std::string> EmptyCells;    ///< the file exists but has no stars
    std::vector<std::string> MissingCells;  ///< there is no file
    double Coverage = 0;                    ///< fraction of the sphere in cells with stars, 0..1
    MagnitudeCounts Magnitudes;
    std::vector<CatalogHole> Holes;
    /// For each cell of `AllCells` the diagonal (degrees) of the smallest field that can be solved
    /// there; infinite when none can.
    std::vector<double> SmallestFields;

    std::uint64_t FaultCount = 0;
    std::vector<std::string> Faults;  ///< the first of them, in words
    std::vector<std::string> Strays;  ///< entries that do not belong to a catalog, which are
                                      ///< harmless
};

/// Reads every cell file of a folder. Faults are files that end within a record, stars out of
/// range, and stars in the wrong cell. With a manifest (null when there is none), files that are
/// missing, changed since the build or not sorted by brightness are faults too. Empty files without
/// an entry in the manifest are not: solvers create them for cells that they look up. Throws a
/// `ToolFailure` when the folder cannot be read.
CatalogSurvey SurveyCatalog(const std::filesystem::path& folder, const CatalogManifest* manifest,
                            ProgressLine& progress);

}  // namespace vestrel
