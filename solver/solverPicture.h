// Turns pictures in memory into the program's image record.
#pragma once

#include "program/mGeneral.h"
#include "solver/solver.h"

namespace vestrel {

/// Makes an image from samples in memory.
/// @throws DecodeFault when it cannot be a picture, std::invalid_argument when the shape is invalid
void ImageFromPixels(const PixelPicture& picture, const Progress& progress, PlateImage& image);

/// Makes a black image of the size that belongs to a star list.
/// @throws as `ImageFromPixels`
void ImageOfStars(const StarField& field, PlateImage& image);

/// The stars as a list of plate stars, brightest first.
/// @throws std::invalid_argument for numbers that are not finite
PlateStarList StarsOf(const StarField& field);

}  // namespace vestrel
