#include "desktop/libDraggedLayer.h"

#include <QRegion>
#include <cmath>
#include <optional>

#include "display/libPictureView.h"

namespace vestrel {

namespace {

/// A movement as whole pixels; nothing when it is not.
std::optional<QPoint> WholePixels(const ScreenPoint& moved, double ratio) {
    constexpr double rounding = 1e-6;
    constexpr double farthest = 1e6;
    const QPointF pixels(moved.X * ratio, moved.Y * ratio);
    const QPointF whole(std::round(pixels.x()), std::round(pixels.y()));
    if (!((pixels - whole).manhattanLength() < rounding)) return std::nullopt;
    if (!(whole.manhattanLength() < farthest)) return std::nullopt;
    return whole.toPoint();
}

}  // namespace

void DraggedLayer::Show(QPainter& painter, const ViewGeometry& view, const QSize& size,
                        const PaintPart& paint) {
    const double ratio = painter.device()->devicePixelRatioF();
    const QSize pixels = (QSizeF(size) * ratio).toSize();
    QRegion missing(QRect(QPoint(), pixels));
    const bool fits = picture_.size() == pixels && picture_.devicePixelRatio() == ratio;
    const auto moved = fits ? view.MovedFrom(view_) : std::nullopt;
    if (const auto by = moved ? WholePixels(*moved, ratio) : std::nullopt) {
        constexpr std::size_t pixelBytes = 4;
        MovePixels({picture_.bits(), static_cast<std::size_t>(picture_.bytesPerLine()), pixelBytes,
                    picture_.width(), picture_.height()},
                   by->x(), by->y());
        missing -= QRect(*by, pixels);
    } else if (!fits) {
        picture_ = QImage(pixels, QImage::Format_ARGB32_Premultiplied);
        if (picture_.isNull()) return;
        picture_.setDevicePixelRatio(ratio);
    }
    view_ = view;
    for (const QRect& strip : missing) {
        const QRectF part(QPointF(strip.topLeft()) / ratio, QSizeF(strip.size()) / ratio);
        QPainter over(&picture_);
        over.setClipRect(part);
        over.setCompositionMode(QPainter::CompositionMode_Source);
        over.fillRect(part, Qt::transparent);
        over.setCompositionMode(QPainter::CompositionMode_SourceOver);
        paint(over, part);
    }
    painter.drawImage(QPointF(), picture_);
}

}  // namespace vestrel
