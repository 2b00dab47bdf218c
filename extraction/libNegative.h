// Pictures of a dark sky on white, as negatives of photographic plates are.
#pragma once

#include "image/libImage.h"

namespace vestrel {

/// Whether far more pixels of an image lie far below its sky than far above: a negative, or
/// something dark in front of the sky. Also when the noise is so strong that counts end before they
/// are far below the sky, and nothing is as far above.
bool MayBeNegative(const PlateImage& image);

}  // namespace vestrel
