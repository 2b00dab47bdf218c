// Fills the gap at the bright end of a survey, where the brightest stars saturate its detectors.
#pragma once

#include <cstddef>
#include <filesystem>
#include <unordered_map>
#include <vector>

#include "catalog/libCellGrid.h"

namespace vestrel {

/// Reads the stars of a GeoJSON file in the form of the npm package d3-celestial: points with the
/// right ascension as longitude (degrees, −180..360) and `properties.mag`. Other features are left
/// out and counted in `unusable`. Throws a `ToolFailure` when the file is not such a collection or
/// holds no star.
std::vector<SkyStar> ReadBrightStars(const std::filesystem::path& file, std::size_t& unusable);

/// Finds out which of a list of bright stars a survey contains, while its stars are read.
class BrightStarFinder {
 public:
    explicit BrightStarFinder(std::vector<SkyStar> stars);

    /// Checks a star of the survey.
    ///
    /// A bright star counts as present when the survey has a star within 10" of it that differs by
    /// less than 2 magnitudes (a close pair measured as one star or as two), or within 60" by less
    /// than 0.75 (bright stars are near and move). A mere neighbour, such as the companion of alpha
    /// Centauri, does not count.
    void Visit(const SkyStar& star);

    /// Whether a star is so near to a bright one that it must be visited; far from all of them
    /// `Visit` has no effect. Threads may ask at once.
    bool IsNear(const SkyStar& star) const;

    /// The bright stars that the survey does not contain.
    std::vector<SkyStar> Missing() const;

 private:
    std::vector<SkyStar> stars_;
    std::vector<Direction> directions_;
    std::vector<bool> present_;
    /// The stars in reach of each box of space. Boxes avoid special cases at the poles and at right
    /// ascension 0.
    std::unordered_map<int, std::vector<std::size_t>> boxes_;
};

}  // namespace vestrel
