// An image as a picture of grey values for the screen.
#pragma once

#include <cstdint>
#include <vector>

#include "image/libImage.h"

namespace vestrel {

/// Rows from the top of the displayed image down; 0 is black.
struct GreyPicture {
    int Width = 0;
    int Height = 0;
    std::vector<std::uint8_t> Pixels;
};

/// The whole image between its first levels (libDisplayLevels), each pixel of the picture the mean
/// of a square of the image's. The squares are the smallest that keep both sides within
/// `longestSide` pixels.
GreyPicture MakeGreyPicture(const PlateImage& image, int longestSide);

}  // namespace vestrel
