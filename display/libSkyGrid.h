// The lines of equal right ascension and declination over a solved image.
//
// Every vertex lies on its line, to the accuracy of `SkyMap`, and within the image; what a window
// joins by straight strokes in between is within a pixel of it. The number of lines and vertices
// is bounded whatever the solution says.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "display/libSkyOverlay.h"

namespace vestrel {

struct GridLine {
    bool IsMeridian = false;  ///< equal right ascension; else equal declination
    double Angle = 0;         ///< that right ascension (0..2π) or declination, radians
    std::string Label;        ///< such as 05h32m or -00°30', with the digits that the step needs
    PixelPoint LabelPlace;    ///< where the line is nearest to the grid's left side (parallels) or
                              ///< first row (meridians)
    std::vector<std::vector<PixelPoint>> Pieces;  ///< the stretches within the image
};

struct SkyGrid {
    double RaStep = 0;  ///< radians
    double DecStep = 0;
    std::vector<GridLine> Lines;
};

/// No more than this many lines of each kind, and vertices a line, ever come.
inline constexpr std::int32_t MostGridLines = 50;
inline constexpr std::int32_t MostLineVertices = 400;

/// The grid with about `wanted` (2..20) lines across the image each way, at round steps. Meridians
/// end a step before a pole that the image shows, where they would only blacken it. Empty where
/// the image shows less than a thousandth of an arcsecond, or no sky.
SkyGrid MakeSkyGrid(const SkyMap& map, std::int32_t width, std::int32_t height, int wanted = 5);

}  // namespace vestrel
