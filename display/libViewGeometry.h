// Converts between pixels of an image and points of the window that shows a part of it.
//
// The image is shown upright as docs/CONVENTIONS.md describes, turned by its EXIF orientation, and
// flipped when the user wants it. Pixel coordinates are those of the stored image. A pixel is the
// square that extends half a pixel around its integer coordinates.
#pragma once

#include <cstdint>
#include <optional>

#include "display/libSkyOverlay.h"
#include "image/libImage.h"

namespace vestrel {

/// A point of a window, in window pixels from the left and from the top; the window's first pixel
/// is the square 0..1.
struct ScreenPoint {
    double X = 0;
    double Y = 0;
};

/// The part of the grid that a window shows, pixels; empty when there is no image.
struct PixelRectangle {
    double Left = 0;   ///< smallest column
    double First = 0;  ///< smallest row
    double Width = 0;
    double Height = 0;
};

/// Columns and rows of an image as it is shown.
struct ShownSize {
    std::int32_t Width = 0;
    std::int32_t Height = 0;
};
ShownSize ShownSizeOf(const PlateImage& image);

class ViewGeometry {
 public:
    /// Sets another image, which is shown whole and turned by its EXIF orientation.
    void SetImage(const PlateImage& image);
    /// @param orientation EXIF orientation, 1 to 8, of an image whose first row is the top one
    void SetImage(std::int32_t width, std::int32_t height, bool firstRowAtTop, int orientation = 1);
    /// Sets the window size. A fitted image stays fitted; otherwise the middle and the scale stay.
    void SetWindow(double width, double height);

    /// Shows the whole image as large as the window allows.
    void Fit();
    bool Fitted() const { return fitted_; }
    /// Changes the scale and keeps the pixel under a point in place, unless the image would then
    /// leave the middle of the window.
    /// @param scale window pixels per image pixel; clamped to a quarter of the fitting scale (of 1
    ///              when that is less) up to 64
    void ZoomTo(double scale, const ScreenPoint& about);
    /// Zooms by steps; two steps double the scale.
    void ZoomBy(double steps, const ScreenPoint& about);
    /// Moves the image in the window; the middle of the window stays on the image.
    void Pan(double dx, double dy);
    /// Sets how the upright image is mirrored.
    void Flip(bool leftRight, bool upDown);

    /// Whether columns of the image are rows in the window.
    bool Turned() const { return along_[0].X == 0; }
    double Scale() const { return scale_; }
    ScreenPoint Middle() const { return {windowWidth_ / 2, windowHeight_ / 2}; }
    PixelPoint PixelAt(const ScreenPoint& point) const;
    ScreenPoint ScreenOf(const PixelPoint& pixel) const;
    /// Converts a direction on the grid to one in the window.
    ScreenPoint DirectionOnScreen(const PixelPoint& direction) const;
    /// Whether a pixel coordinate lies on the image.
    bool OnImage(const PixelPoint& pixel) const;
    PixelRectangle Visible() const;
    /// By how much everything lies farther right and down in the window than in another view;
    /// nothing when the views differ in more than that.
    std::optional<ScreenPoint> MovedFrom(const ViewGeometry& other) const;

 private:
    void SetCentre(const PixelPoint& centre);
    PixelPoint DirectionOnGrid(const ScreenPoint& direction) const;
    double FittingScale() const;

    std::int32_t width_ = 0;
    std::int32_t height_ = 0;
    double windowWidth_ = 1;
    double windowHeight_ = 1;
    ScreenPoint along_[2] = {{1, 0}, {0, 1}};  ///< directions of columns and rows on the screen,
                                               ///< unless flipped
    bool flippedLeftRight_ = false;
    bool flippedUpDown_ = false;
    bool fitted_ = true;
    double scale_ = 1;
    PixelPoint centre_;  ///< the pixel in the middle of the window
};

}  // namespace vestrel
