// Goes through the cell files of a catalog: what they hold, and what is wrong with them.
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
    std::vector<std::string> EmptyCells;    ///< there is a file, but no star in it
    std::vector<std::string> MissingCells;  ///< there is no file
    double Coverage = 0;                    ///< part of the sphere's area in cells with stars, 0..1
    MagnitudeCounts Magnitudes;
    std::vector<CatalogHole> Holes;
    /// Of each cell of `AllCells`: the diagonal (degrees) of the smallest field that can be solved
    /// there, infinite where none can be.
    std::vector<double> SmallestFields;

    std::uint64_t FaultCount = 0;
    std::vector<std::string> Faults;  ///< the first of them, in words
    std::vector<std::string> Strays;  ///< entries that are no part of a catalog: harmless
};

/// Reads every cell file of a folder. A file that breaks off within a record, a star out of range
/// or in the wrong cell is a fault; against a manifest (null when there is none) also a file that
/// is missing, has other content than it was built with, or is not brightest first. An empty file
/// is never one by itself: solvers create them for cells they look up.
/// Throws a `ToolFailure` when the folder cannot be read.
CatalogSurvey SurveyCatalog(const std::filesystem::path& folder, const CatalogManifest* manifest,
                            ProgressLine& progress);

}  // namespace vestrel
