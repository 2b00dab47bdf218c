// Paints any view of a picture, from the level of its pyramid that fits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "display/libPicturePyramid.h"
#include "display/libViewGeometry.h"

namespace vestrel {

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

/// The source of a row or column of the target: two rows or columns of a level, and the weight of
/// the second in 256ths. Outside the image `First` is below 0.
struct ViewSource {
    int First = -1;
    int Second = -1;
    int Weight = 0;
    bool operator==(const ViewSource&) const = default;
};

/// Where the pixels of a target come from.
struct ViewSources {
    std::vector<ViewSource> Columns;  ///< of the target; of a turned image these are rows of it
    std::vector<ViewSource> Rows;
    int Level = 0;
    bool Interpolated = false;
    bool Turned = false;
};

/// What a window shows of a picture. While the picture is dragged, what was painted moves along and
/// only the strips that come into view are painted. The pixels are those of `PaintView`, all of
/// them: one moves along only when its source did.
class DraggedView {
 public:
    /// @param width, height  of the view, pixels of the target; above 0
    /// @return rows of the target without gaps, until the next call
    std::span<const std::uint8_t> Paint(const PicturePyramid& pyramid, const ViewGeometry& view,
                                        double pixelRatio, int width, int height);
    /// How many pixels had to be painted the last time.
    std::int64_t Painted() const { return painted_; }

 private:
    std::shared_ptr<const void> edition_;  ///< of the picture that was painted
    ViewGeometry view_;
    ViewSources sources_;
    std::vector<std::uint8_t> pixels_;
    std::int64_t painted_ = 0;
};

/// The rows of a picture of any kind.
struct PixelRows {
    std::uint8_t* First = nullptr;
    std::size_t RowBytes = 0;
    std::size_t PixelBytes = 1;
    int Width = 0;
    int Height = 0;
};

/// Moves the contents of a picture within it. Places to which nothing moves stay as they were.
void MovePixels(const PixelRows& picture, int right, int down);

}  // namespace vestrel
