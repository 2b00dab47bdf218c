// Fills the gap at the bright end of a survey, whose detectors the brightest stars overwhelm.
#pragma once

#include <cstddef>
#include <filesystem>
#include <unordered_map>
#include <vector>

#include "catalog/libCellGrid.h"

namespace vestrel {

/// The stars of a GeoJSON file as the npm package d3-celestial has them: points with the right
/// ascension as a longitude (degrees, −180..360) and `properties.mag`. Features that are no such
/// points are left out and counted in `unusable`.
/// Throws a `ToolFailure` when the file is not such a collection or holds not one star.
std::vector<SkyStar> ReadBrightStars(const std::filesystem::path& file, std::size_t& unusable);

/// Finds out which of a list of bright stars a survey has, while its stars pass by.
class BrightStarFinder {
 public:
    explicit BrightStarFinder(std::vector<SkyStar> stars);

    /// Takes note of a star of the survey.
    ///
    /// A bright star counts as present when the survey has a star within 10" of it that differs by
    /// less than 2 magnitudes (a close pair measured as one star, or apart), or within 60" by less
    /// than 0.75 (bright stars are near ones, and move). A mere neighbour, such as the companion of
    /// alpha Centauri, is neither.
    void Visit(const SkyStar& star);

    /// The bright stars that none of the visited stars stands for.
    std::vector<SkyStar> Missing() const;

 private:
    std::vector<SkyStar> stars_;
    std::vector<Direction> directions_;
    std::vector<bool> present_;
    /// The stars in reach of each box of a coarse division of space: without poles and without a
    /// seam where right ascension starts anew.
    std::unordered_map<int, std::vector<std::size_t>> boxes_;
};

}  // namespace vestrel
