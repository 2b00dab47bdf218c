// What is under the pointer, as text.
#pragma once

#include <optional>
#include <string>

#include "display/libSkyOverlay.h"

namespace vestrel {

/// Pixel coordinates as docs/CONVENTIONS.md counts them, the physical count of that pixel, and the
/// J2000 position where there is one.
struct Readout {
    std::string Pixel;  ///< empty off the image, as are the others
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
