// What condition the stars of a picture are in, told from the patches of light in it.
//
// A patch is what stands five standard deviations above the sky around it; its shape is that of its
// second moments. Taken over many patches these tell a trail, which all stars share, from the
// elongation that optics leave, which differs over the frame, and stars from what is none.
#pragma once

#include <cstdint>

#include "image/libImage.h"

namespace vestrel {

/// The patches of a picture, and what the typical ones look like: medians over the brighter half.
struct ImageHealth {
    double SkyLevel = 0;       ///< counts, the median over the frame
    double SkyNoise = 0;       ///< counts, of single pixels
    std::int32_t Patches = 0;  ///< of light, single hot pixels excepted
    std::int32_t HotPixels = 0;
    std::int32_t DarkPatches = 0;  ///< as far below the sky around them
    double CoveredPart = 0;        ///< of the frame, by patches of either kind
    double RaggedPart = 0;         ///< of the patches, which are no ellipses

    double Width = 0;         ///< full width at half height across the patches, pixels
    double Elongation = 1;    ///< longer axis / shorter axis, 1 or more
    double TrailLength = 0;   ///< of a line that leaves as long a patch, pixels
    double LengthSpread = 0;  ///< of these lengths, as a part of them
    double TrailAngle = 0;  ///< of the longer axes from the x axis of the grid, radians, −π/2..π/2
    double AngleAgreement = 0;  ///< of these angles: 0 when they are any, 1 when all are the same
    double HollowPart = 0;      ///< of the patches, darker in the middle than around it
};

/// Looks at a picture as it was read. One that is too small, below 64 pixels, has no patches.
/// Deterministic; takes a fraction of a second at most, whatever the size.
ImageHealth HealthOf(const PlateImage& image);

}  // namespace vestrel
