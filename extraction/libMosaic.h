// Mosaics of colours (Bayer patterns): each pixel has one colour, and a cell of two by two has all.
#pragma once

#include "astro/libPlateStar.h"
#include "image/libImage.h"

namespace vestrel {

/// An image of half the size whose pixels are the sums of two by two pixels, which removes any
/// pattern of filters. A last odd column or row is left out.
PlateImage SumsOfMosaic(const PlateImage& mosaic);

/// Converts stars of such an image to pixel coordinates of the mosaic.
PlateStarList InMosaicPixels(PlateStarList stars);

}  // namespace vestrel
