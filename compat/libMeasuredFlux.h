// The brightness of listed stars, measured again in the picture that they were found in.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "compat/libFitsStars.h"
#include "image/libImage.h"

namespace vestrel {

/// The picture of a star table: the file of a format that is read here, beside the table and of the
/// same name but for the extension; nothing when there is none.
std::optional<std::filesystem::path> PictureBeside(const std::filesystem::path& table);

/// The flux of each listed star: counts within 3 pixels above the median of a ring around. The rows
/// of the list count from the bottom of the picture or from its top, whichever finds more light.
/// Stars outside the picture have none.
std::vector<double> MeasuredFlux(const PlateImage& image, const std::vector<ListedStar>& stars);

/// The stars in the order in which a solve is to take them: brightest first.
std::vector<ListedStar> RankedStars(std::vector<ListedStar> stars);

/// Ranked stars, in turn from each cell of a grid of 4 x 4: first the best of each, then the
/// second ones. A nebula that a star finder took for stars then spoils its own cells only.
std::vector<ListedStar> InterleavedStars(const std::vector<ListedStar>& ranked, double width,
                                         double height);

}  // namespace vestrel
