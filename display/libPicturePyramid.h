// An image as grey values in levels of halved size.
#pragma once

#include <cstdint>
#include <memory>
#include <stop_token>
#include <vector>

#include "display/libDisplayLevels.h"
#include "image/libImage.h"

namespace vestrel {

/// A grey picture; rows in the order of the grid, 0 is black.
struct GreyLevel {
    int Width = 0;
    int Height = 0;
    std::vector<std::uint8_t> Pixels;
};

class PicturePyramid {
 public:
    /// Takes the grey values of every pixel, in parallel. Memory is kept for the next time. When it
    /// is asked to stop it does so soon, and leaves a picture that is not to be shown.
    void Build(const PlateImage& image, const GreyLookup& grey, const std::stop_token& stop = {});

    /// The same from the counts, with separate display levels for each level of the pyramid that
    /// show its faint stars. The mean of many pixels has less noise, so with the levels of single
    /// pixels it would look uniformly grey.
    void BuildForScreen(const PlateImage& image, bool inverted, const std::stop_token& stop = {});
    void Clear();
    bool Empty() const { return levels_.empty(); }

    /// Level 0 is the image. Each pixel of the next level is the mean of 2 × 2 pixels, fewer at the
    /// edge. The last level is a single pixel.
    const std::vector<GreyLevel>& Levels() const { return levels_; }

    /// Stands for the present pixels: no others ever have the same, as long as somebody keeps it.
    std::shared_ptr<const void> Edition() const { return edition_; }

 private:
    std::vector<GreyLevel> levels_;
    std::shared_ptr<const void> edition_;
};

}  // namespace vestrel
