// Describes the pixel under the mouse pointer as text.
#pragma once

#include <optional>
#include <string>

#include "display/libSkyOverlay.h"

namespace vestrel {

/// Pixel coordinates as in docs/CONVENTIONS.md, the physical count of that pixel, and its J2000
/// position when the image is solved.
struct Readout {
    std::string Pixel;  ///< empty outside the image, like the others
    std::string Count;
    std::string Sky;
};
Readout ReadoutAt(const PlateImage& image, const std::optional<SkyMap>& map,
                  const PixelPoint& pixel);

/// A position to a tenth of an arcsecond.
std::string SkyText(const SkyPosition& sky);

/// A number with exactly this many (0..9) decimals, for columns that should not jump.
std::string FixedText(double value, int decimals);

}  // namespace vestrel
