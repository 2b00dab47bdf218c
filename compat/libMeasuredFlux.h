// Measures the brightness of listed stars again, in the picture in which they were found.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "compat/libFitsStars.h"
#include "image/libImage.h"

namespace vestrel {

/// The picture of a star table: a file of a readable format beside the table, with the same name
/// except for the extension; nothing when there is none.
std::optional<std::filesystem::path> PictureBeside(const std::filesystem::path& table);

/// The flux of each listed star: counts within 3 pixels above the median of a ring around. The rows
/// of the list count from the bottom or the top of the picture, whichever finds more light. Stars
/// outside the picture get 0.
std::vector<double> MeasuredFlux(const PlateImage& image, const std::vector<ListedStar>& stars);

/// The stars in the order for a solve: brightest first.
std::vector<ListedStar> RankedStars(std::vector<ListedStar> stars);

/// Ranked stars, taken in turn from each cell of a 4 x 4 grid: first the best of each, then the
/// second best. A nebula that a star finder took for stars then affects only its own cells.
std::vector<ListedStar> InterleavedStars(const std::vector<ListedStar>& ranked, double width,
                                         double height);

}  // namespace vestrel
