// A 3 × 3 Gaussian smoothing, used when too few stars were found.
#pragma once

#include <cstdint>

#include "astro/libParallel.h"
#include "image/libPixelGrid.h"

namespace vestrel {

/// Smooths `width` × `height` values in place with a Gaussian of standard deviation 1 pixel,
/// sampled at nine pixel centres and normalised. The one-pixel border stays as it is, and so does
/// an image of fewer than 3 columns or rows. Results are rounded half to even.
void GaussianFilter(PixelGrid& pixels, std::int32_t width, std::int32_t height,
                    const Progress& progress = {});

}  // namespace vestrel
