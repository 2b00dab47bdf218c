// The relative photometry of clicked stars: two clicks make a row of the table.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "photometry/libRelativePhotometry.h"
#include "program/mGeneral.h"
#include "program/mStarStatistics.h"

namespace vestrel {

struct PhotometryTable {
    std::optional<StarReport> First;  ///< the star with which the next one is compared
    bool KeepsFirst = false;          ///< all following stars are compared with the same one
    std::vector<PhotometryRow> Rows;
};

/// Measures the clicked star. It becomes the first star of a pair, or completes a row; a place
/// without a star changes nothing.
/// @return the outcome in words, warnings included
std::string TakePhotometryStar(ProgramState& state, PhotometryTable& table,
                               const PixelPoint& pixel);

/// What the user should do next.
std::string PhotometryHint(const PhotometryTable& table);

/// The table as the window shows it.
inline constexpr std::array<const char*, 6> PhotometryColumns = {
    "Image", "First (x, y)", "Second (x, y)", "Difference", "Magnitude", "Remarks"};
std::array<std::string, PhotometryColumns.size()> PhotometryCells(const PhotometryRow& row);

/// Asks for a file and writes the table as comma-separated values, whole or not at all.
void ExportPhotometry(ProgramState& state, Port& port, const PhotometryTable& table);

}  // namespace vestrel
