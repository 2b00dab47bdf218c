// Judges the condition of the stars in a picture from its patches of light.
//
// A patch is a region five standard deviations above the sky around it; its second moments give its
// shape. Statistics over many patches distinguish trails, which all stars share, from elongation by
// the optics, which varies over the frame, and stars from other things.
#pragma once

#include <cstdint>

#include "image/libImage.h"

namespace vestrel {

/// The patches of a picture and their typical shape: medians over the brighter half.
struct ImageHealth {
    bool Measured = false;     ///< false: the picture is too small, and nothing below holds
    double SkyLevel = 0;       ///< counts, the median over the frame
    double SkyNoise = 0;       ///< counts, of single pixels
    std::int32_t Patches = 0;  ///< patches of light, without single hot pixels
    std::int32_t HotPixels = 0;
    std::int32_t DarkPatches = 0;  ///< patches as far below the sky around them
    double CoveredPart = 0;        ///< share of the frame, 0..1, covered by patches of either kind
    double RaggedPart = 0;         ///< share of the patches, 0..1, that are not elliptical

    double Width = 0;         ///< full width at half maximum across the patches, pixels
    double Elongation = 1;    ///< longer axis / shorter axis, 1 or more
    double TrailLength = 0;   ///< length of a line that would give as long a patch, pixels
    double LengthSpread = 0;  ///< relative spread of these lengths
    double TrailAngle = 0;  ///< of the longer axes from the x axis of the grid, radians, −π/2..π/2
    double AngleAgreement = 0;  ///< agreement of these angles: 0 when random, 1 when all are equal
    double HollowPart = 0;      ///< share of the patches, 0..1, that are darker in the middle
};

/// Examines a picture as read, before background subtraction. A picture with a side below 64 pixels
/// is not measured. Deterministic; takes a fraction of a second at most, whatever the size.
ImageHealth HealthOf(const PlateImage& image);

}  // namespace vestrel
