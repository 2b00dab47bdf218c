#include "display/libViewGeometry.h"

#include <algorithm>
#include <cmath>

namespace vestrel {

void ViewGeometry::SetImage(std::int32_t width, std::int32_t height, bool firstRowAtTop) {
    width_ = width;
    height_ = height;
    firstRowAtTop_ = firstRowAtTop;
    Fit();
}

void ViewGeometry::SetWindow(double width, double height) {
    windowWidth_ = std::max(width, 1.0);
    windowHeight_ = std::max(height, 1.0);
    if (fitted_) Fit();
}

double ViewGeometry::FittingScale() const {
    if (width_ < 1 || height_ < 1) return 1;
    return std::min(windowWidth_ / width_, windowHeight_ / height_);
}

void ViewGeometry::Fit() {
    fitted_ = true;
    scale_ = FittingScale();
    centre_ = {(width_ - 1) / 2.0, (height_ - 1) / 2.0};
}

void ViewGeometry::ZoomTo(double scale, const ScreenPoint& about) {
    constexpr double largest = 64;
    const PixelPoint kept = PixelAt(about);
    scale_ = std::clamp(scale, std::min(FittingScale(), 1.0) / 4, largest);
    fitted_ = false;
    const PixelPoint moved = PixelAt(about);
    SetCentre({centre_.X + kept.X - moved.X, centre_.Y + kept.Y - moved.Y});
}

void ViewGeometry::ZoomBy(double steps, const ScreenPoint& about) {
    ZoomTo(scale_ * std::exp2(steps / 2), about);
}

void ViewGeometry::Pan(double dx, double dy) {
    fitted_ = false;
    const ScreenPoint middle = Middle();
    SetCentre(PixelAt({middle.X - dx, middle.Y - dy}));
}

void ViewGeometry::Flip(bool leftRight, bool upDown) {
    flippedLeftRight_ = leftRight;
    flippedUpDown_ = upDown;
}

void ViewGeometry::SetCentre(const PixelPoint& centre) {
    centre_.X = std::clamp(centre.X, -0.5, std::max(width_ - 0.5, -0.5));
    centre_.Y = std::clamp(centre.Y, -0.5, std::max(height_ - 0.5, -0.5));
}

ScreenPoint ViewGeometry::DirectionOnScreen(const PixelPoint& direction) const {
    return {flippedLeftRight_ ? -direction.X : direction.X,
            firstRowAtTop_ != flippedUpDown_ ? direction.Y : -direction.Y};
}

PixelPoint ViewGeometry::PixelAt(const ScreenPoint& point) const {
    // The directions are their own inverse.
    const ScreenPoint way = DirectionOnScreen(
        {(point.X - windowWidth_ / 2) / scale_, (point.Y - windowHeight_ / 2) / scale_});
    return {centre_.X + way.X, centre_.Y + way.Y};
}

ScreenPoint ViewGeometry::ScreenOf(const PixelPoint& pixel) const {
    const ScreenPoint way =
        DirectionOnScreen({(pixel.X - centre_.X) * scale_, (pixel.Y - centre_.Y) * scale_});
    return {windowWidth_ / 2 + way.X, windowHeight_ / 2 + way.Y};
}

bool ViewGeometry::OnImage(const PixelPoint& pixel) const {
    return pixel.X >= -0.5 && pixel.Y >= -0.5 && pixel.X < width_ - 0.5 && pixel.Y < height_ - 0.5;
}

PixelRectangle ViewGeometry::Visible() const {
    const double halfWidth = windowWidth_ / 2 / scale_;
    const double halfHeight = windowHeight_ / 2 / scale_;
    const double left = std::max(centre_.X - halfWidth, -0.5);
    const double first = std::max(centre_.Y - halfHeight, -0.5);
    const double right = std::min(centre_.X + halfWidth, width_ - 0.5);
    const double last = std::min(centre_.Y + halfHeight, height_ - 0.5);
    if (right <= left || last <= first) return {};
    return {left, first, right - left, last - first};
}

}  // namespace vestrel
