// The grid of right ascension and declination over a solved image.
//
// Every vertex lies within the image and on its line, to the accuracy of `SkyMap`; straight strokes
// between vertices stay within a pixel of the line. The number of lines and vertices is bounded,
// whatever the solution is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "display/libSkyOverlay.h"

namespace vestrel {

struct GridLine {
    bool IsMeridian = false;  ///< line of equal right ascension, else of equal declination
    double Angle = 0;         ///< that right ascension (0..2π) or declination, radians
    std::string Label;        ///< such as 05h32m or -00°30', with as many digits as the step needs
    PixelPoint LabelPlace;    ///< where the line is nearest to the grid's left side (parallels) or
                              ///< first row (meridians)
    std::vector<std::vector<PixelPoint>> Pieces;  ///< the parts within the image
};

struct SkyGrid {
    double RaStep = 0;  ///< radians
    double DecStep = 0;
    std::vector<GridLine> Lines;
};

/// The largest number of lines of each kind, and of vertices in a line.
inline constexpr std::int32_t MostGridLines = 50;
inline constexpr std::int32_t MostLineVertices = 400;

/// The grid with about `wanted` (2..20) lines across the image in each direction, at round steps.
/// Meridians end one step before a pole that the image shows, so that they do not merge there.
/// Empty when the image spans less than a thousandth of an arcsecond, or shows no sky.
SkyGrid MakeSkyGrid(const SkyMap& map, std::int32_t width, std::int32_t height, int wanted = 5);

}  // namespace vestrel
