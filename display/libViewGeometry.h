// Which part of an image a window shows: between pixels of the image and points of the window.
//
// The image is shown upright, as docs/CONVENTIONS.md says, turned as its camera wants it, unless it
// is flipped for display. Pixels stay those of the stored image. A pixel is the square of half a
// pixel around its whole coordinates.
#pragma once

#include <cstdint>

#include "display/libSkyOverlay.h"
#include "image/libImage.h"

namespace vestrel {

/// A point of a window, in its pixels: from the left, from the top; the window's first pixel is
/// the square 0..1.
struct ScreenPoint {
    double X = 0;
    double Y = 0;
};

/// The part of the grid that a window shows, pixels; empty when the image is.
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
    /// Another image: it is shown whole, and turned as its camera wants it.
    void SetImage(const PlateImage& image);
    /// @param orientation of an image whose first row is the top one, 1 to 8 as EXIF counts
    void SetImage(std::int32_t width, std::int32_t height, bool firstRowAtTop, int orientation = 1);
    /// A fitted image stays fitted; else the middle and the scale stay.
    void SetWindow(double width, double height);

    /// Shows the whole image as large as the window allows.
    void Fit();
    bool Fitted() const { return fitted_; }
    /// Changes the scale and leaves the pixel under a point where it is, unless the image would
    /// then leave the middle of the window.
    /// @param scale window pixels per image pixel; held between a quarter of the fitting scale (or
    ///              1 when that is less) and 64
    void ZoomTo(double scale, const ScreenPoint& about);
    /// Two steps double the scale.
    void ZoomBy(double steps, const ScreenPoint& about);
    /// Moves the image in the window; some of it stays in its middle.
    void Pan(double dx, double dy);
    /// Which ways round the upright image is shown.
    void Flip(bool leftRight, bool upDown);

    /// Whether columns of the image are rows in the window.
    bool Turned() const { return along_[0].X == 0; }
    double Scale() const { return scale_; }
    ScreenPoint Middle() const { return {windowWidth_ / 2, windowHeight_ / 2}; }
    PixelPoint PixelAt(const ScreenPoint& point) const;
    ScreenPoint ScreenOf(const PixelPoint& pixel) const;
    /// A direction on the grid as one in the window.
    ScreenPoint DirectionOnScreen(const PixelPoint& direction) const;
    /// Whether a pixel coordinate lies on the image.
    bool OnImage(const PixelPoint& pixel) const;
    PixelRectangle Visible() const;

 private:
    void SetCentre(const PixelPoint& centre);
    PixelPoint DirectionOnGrid(const ScreenPoint& direction) const;
    double FittingScale() const;

    std::int32_t width_ = 0;
    std::int32_t height_ = 0;
    double windowWidth_ = 1;
    double windowHeight_ = 1;
    ScreenPoint along_[2] = {{1, 0}, {0, 1}};  ///< where columns and rows lead, unless flipped
    bool flippedLeftRight_ = false;
    bool flippedUpDown_ = false;
    bool fitted_ = true;
    double scale_ = 1;
    PixelPoint centre_;  ///< the pixel in the middle of the window
};

}  // namespace vestrel
