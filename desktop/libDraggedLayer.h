// A kept picture of the marks over an image.
#pragma once

#include <QImage>
#include <QPainter>
#include <functional>

#include "display/libViewGeometry.h"

namespace vestrel {

/// Keeps a transparent picture of everything that is fixed to an image. While the image is dragged,
/// the picture moves with it and only the strips that come into view are painted.
class DraggedLayer {
 public:
    /// Paints what reaches into a part of the view, in window pixels; the painter is clipped to it.
    using PaintPart = std::function<void(QPainter&, const QRectF&)>;

    /// Draws the layer over a view.
    /// @param size of the window that shows the view
    void Show(QPainter& painter, const ViewGeometry& view, const QSize& size,
              const PaintPart& paint);
    /// Call when what is painted has changed.
    void Forget() { picture_ = {}; }

 private:
    QImage picture_;
    ViewGeometry view_;  ///< of the picture
};

}  // namespace vestrel
