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
    void Clear() { levels_.clear(); }
    bool Empty() const { return levels_.empty(); }

    /// Level 0 is the image. Each pixel of the next level is the mean of 2 × 2 pixels, fewer at the
    /// edge. The last level is a single pixel.
    const std::vector<GreyLevel>& Levels() const { return levels_; }

 private:
    std::vector<GreyLevel> levels_;
};

/// A buffer of grey rows to be filled.
struct GreyTarget {
    std::span<std::uint8_t> Pixels;
    int Width = 0;
    int Height = 0;
    std::size_t RowBytes = 0;
};

/// The grey value outside the image.
inline constexpr std::uint8_t GreyOutsideImage = 40;

/// Paints what a window shows, in parallel. Enlarged pixels are squares. A reduced image is
/// interpolated in the coarsest level that is still at least as fine as the target.
/// @param pixelRatio pixels of the target per pixel of the window
void PaintView(const PicturePyramid& pyramid, const ViewGeometry& view, double pixelRatio,
               const GreyTarget& target);

}  // namespace vestrel
