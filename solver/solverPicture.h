// Pictures that come from memory: how they become the program's one loaded image.
#pragma once

#include "program/mGeneral.h"
#include "solver/solver.h"

namespace vestrel {

/// Makes an image of samples in memory.
/// @throws DecodeFault when it can be no picture, std::invalid_argument when the shape is none
void ImageFromPixels(const PixelPicture& picture, const Progress& progress, PlateImage& image);

/// Makes an image without light of the size that a star list belongs to.
/// @throws as `ImageFromPixels`
void ImageOfStars(const StarField& field, PlateImage& image);

/// The stars as a list of plate stars, brightest first.
/// @throws std::invalid_argument for numbers that are not finite
PlateStarList StarsOf(const StarField& field);

}  // namespace vestrel
