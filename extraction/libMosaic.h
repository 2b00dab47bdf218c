// Pictures of sensors with colour filters: each pixel saw one colour, two by two of them saw all.
#pragma once

#include "astro/libPlateStar.h"
#include "image/libImage.h"

namespace vestrel {

/// The sums of two by two pixels, in which the pattern of the filters is gone whatever it is. A
/// last odd column or row is left out.
PlateImage SumsOfMosaic(const PlateImage& mosaic);

/// Stars of such sums, at their places in the mosaic.
PlateStarList InMosaicPixels(PlateStarList stars);

}  // namespace vestrel
