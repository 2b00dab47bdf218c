// The star record that extraction, catalog and matching share.
#pragma once

#include "astro/libNumberedList.h"

namespace vestrel {

/// One star on a plane: extracted from an image, or a catalog star projected onto it.
struct PlateStar {
    float X = 0;     ///< column (pixels, centres whole), or xi (arcseconds, growing west)
    float Y = 0;     ///< row (pixels), or eta (arcseconds, growing north)
    float Flux = 0;  ///< counts above the sky, or the catalog magnitude
    double Ra = 0;   ///< J2000, radians; 0 for an extracted star
    double Dec = 0;  ///< J2000, radians; 0 for an extracted star
};

using PlateStarList = NumberedList<PlateStar>;

}  // namespace vestrel
