// An image as grey values in levels of halved size, and any view of it from the level that fits.
#pragma once

#include <cstdint>
#include <span>
#include <stop_token>
#include <vector>

#include "display/libDisplayLevels.h"
#include "display/libViewGeometry.h"
#include "image/libImage.h"

namespace vestrel {

/// Rows as they stand in the grid; 0 is black.
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

    /// The same from the counts themselves, each level with levels of its own that show its faint
    /// stars: the mean of many pixels has less noise, and would be plain grey by the levels of one.
    void BuildForScreen(const PlateImage& image, bool inverted, const std::stop_token& stop = {});
    void Clear() { levels_.clear(); }
    bool Empty() const { return levels_.empty(); }

    /// Level 0 is the image. Each pixel of the next level is the mean of 2 × 2 pixels, or of fewer
    /// at the edge. The last level is a single pixel.
    const std::vector<GreyLevel>& Levels() const { return levels_; }

 private:
    std::vector<GreyLevel> levels_;
};

/// Rows of grey values to be filled.
struct GreyTarget {
    std::span<std::uint8_t> Pixels;
    int Width = 0;
    int Height = 0;
    std::size_t RowBytes = 0;
};

/// What is painted where there is no image.
inline constexpr std::uint8_t GreyOutsideImage = 40;

/// Paints what a window shows, in parallel. Enlarged pixels are squares; a reduced image is
/// interpolated between the means of the level that is at most half too fine.
/// @param pixelRatio pixels of the target per pixel of the window
void PaintView(const PicturePyramid& pyramid, const ViewGeometry& view, double pixelRatio,
               const GreyTarget& target);

}  // namespace vestrel
