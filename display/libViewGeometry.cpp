#include "display/libViewGeometry.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

namespace vestrel {

namespace {

/// The directions of columns and rows on the screen, by EXIF orientation (CIPA DC-008, tag 0x0112).
struct Ways {
    ScreenPoint Columns;
    ScreenPoint Rows;
};
constexpr Ways ways[] = {
    {{1, 0}, {0, 1}}, {{-1, 0}, {0, 1}}, {{-1, 0}, {0, -1}}, {{1, 0}, {0, -1}},
    {{0, 1}, {1, 0}}, {{0, 1}, {-1, 0}}, {{0, -1}, {-1, 0}}, {{0, -1}, {1, 0}},
};

const Ways& WaysOf(int orientation) {
    return ways[orientation < 1 || orientation > 8 ? 0 : orientation - 1];
}

}  // namespace

ShownSize ShownSizeOf(const PlateImage& image) {
    const bool turned = WaysOf(image.Orientation).Columns.X == 0;
    return turned ? ShownSize{image.Height, image.Width} : ShownSize{image.Width, image.Height};
}

void ViewGeometry::SetImage(const PlateImage& image) {
    SetImage(image.Width, image.Height, FirstRowAtTop(image), image.Orientation);
}

void ViewGeometry::SetImage(std::int32_t width, std::int32_t height, bool firstRowAtTop,
                            int orientation) {
    width_ = width;
    height_ = height;
    const Ways& shown = WaysOf(orientation);
    along_[0] = shown.Columns;
    along_[1] = shown.Rows;
    if (!firstRowAtTop) along_[1] = {-along_[1].X, -along_[1].Y};
    Fit();
}

void ViewGeometry::SetWindow(double width, double height) {
    windowWidth_ = std::max(width, 1.0);
    windowHeight_ = std::max(height, 1.0);
    if (fitted_) Fit();
}

double ViewGeometry::FittingScale() const {
    if (width_ < 1 || height_ < 1) return 1;
    if (Turned()) return std::min(windowWidth_ / height_, windowHeight_ / width_);
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
    const double x = along_[0].X * direction.X + along_[1].X * direction.Y;
    const double y = along_[0].Y * direction.X + along_[1].Y * direction.Y;
    return {flippedLeftRight_ ? -x : x, flippedUpDown_ ? -y : y};
}

PixelPoint ViewGeometry::DirectionOnGrid(const ScreenPoint& direction) const {
    const double x = flippedLeftRight_ ? -direction.X : direction.X;
    const double y = flippedUpDown_ ? -direction.Y : direction.Y;
    return {along_[0].X * x + along_[0].Y * y, along_[1].X * x + along_[1].Y * y};
}

PixelPoint ViewGeometry::PixelAt(const ScreenPoint& point) const {
    const PixelPoint way = DirectionOnGrid(
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
    double halfWidth = windowWidth_ / 2 / scale_;
    double halfHeight = windowHeight_ / 2 / scale_;
    if (Turned()) std::swap(halfWidth, halfHeight);
    const double left = std::max(centre_.X - halfWidth, -0.5);
    const double first = std::max(centre_.Y - halfHeight, -0.5);
    const double right = std::min(centre_.X + halfWidth, width_ - 0.5);
    const double last = std::min(centre_.Y + halfHeight, height_ - 0.5);
    if (right <= left || last <= first) return {};
    return {left, first, right - left, last - first};
}

std::optional<ScreenPoint> ViewGeometry::MovedFrom(const ViewGeometry& other) const {
    const auto allButPlace = [](const ViewGeometry& view) {
        return std::tuple(view.width_, view.height_, view.windowWidth_, view.windowHeight_,
                          view.along_[0].X, view.along_[0].Y, view.along_[1].X, view.along_[1].Y,
                          view.flippedLeftRight_, view.flippedUpDown_, view.scale_);
    };
    if (allButPlace(*this) != allButPlace(other)) return std::nullopt;
    const ScreenPoint here = ScreenOf({0, 0});
    const ScreenPoint there = other.ScreenOf({0, 0});
    return ScreenPoint{here.X - there.X, here.Y - there.Y};
}

}  // namespace vestrel
