// An image as a picture of grey values for the screen.
#pragma once

#include <cstdint>
#include <vector>

#include "image/libImage.h"

namespace vestrel {

/// Stored values that are shown black and white.
struct DisplayLevels {
    double Black = 0;
    double White = 1;  ///< above `Black`
};

/// Levels from a sample of the image: the sky becomes dark grey and some thousandths of the pixels,
/// the stars, white.
DisplayLevels AutomaticLevels(const PlateImage& image);

/// Rows from the top of the displayed image down; 0 is black.
struct GreyPicture {
    int Width = 0;
    int Height = 0;
    std::vector<std::uint8_t> Pixels;
};

/// The whole image, each pixel of the picture the mean of a square of the image's. The squares are
/// the smallest that keep both sides within `longestSide` pixels.
GreyPicture MakeGreyPicture(const PlateImage& image, const DisplayLevels& levels, int longestSide);

}  // namespace vestrel
