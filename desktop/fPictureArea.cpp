#include "desktop/fPictureArea.h"

#include <QApplication>
#include <QImage>
#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>
#include <cmath>

#include "desktop/libWindows.h"

namespace vestrel {

namespace {

/// The pointer is in the middle of the window pixel that its coordinates name.
ScreenPoint PointOf(const QPointF& point) {
    return {point.x() + 0.5, point.y() + 0.5};
}

}  // namespace

PictureArea::PictureArea() {
    setObjectName("picImage");
    setAccessibleName("Image");
    setMinimumSize(200, 150);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::CrossCursor);
    // Every pixel is painted, so nothing needs to be cleared first.
    setAttribute(Qt::WA_OpaquePaintEvent);
}

void PictureArea::Fit() {
    View.Fit();
    ViewChanged();
}

void PictureArea::ZoomTo(double scale) {
    View.ZoomTo(scale, View.Middle());
    ViewChanged();
}

void PictureArea::ZoomBy(double steps) {
    View.ZoomBy(steps, View.Middle());
    ViewChanged();
}

void PictureArea::ViewChanged() {
    if (OnViewChanged) OnViewChanged();
    update();
}

void PictureArea::paintEvent(QPaintEvent* /*event*/) {
    if (OnBeforePaint) OnBeforePaint();
    const QSize pixels = size() * devicePixelRatioF();
    const auto grey =
        shown_.Paint(Picture, View, devicePixelRatioF(), pixels.width(), pixels.height());
    QPainter painter(this);
    painter.drawImage(rect(), QImage(grey.data(), pixels.width(), pixels.height(), pixels.width(),
                                     QImage::Format_Grayscale8));
    if (OnPaintOverlays && !Picture.Empty()) OnPaintOverlays(painter);
    if (IsRedOnly(palette())) Redden(painter, rect());
}

void PictureArea::resizeEvent(QResizeEvent* /*event*/) {
    View.SetWindow(width(), height());
    ViewChanged();
}

void PictureArea::wheelEvent(QWheelEvent* event) {
    constexpr double eighthsPerStep = 120;
    View.ZoomBy(event->angleDelta().y() / eighthsPerStep, PointOf(event->position()));
    ViewChanged();
    event->accept();
}

void PictureArea::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) return;
    pressed_ = last_ = event->position();
    dragging_ = false;
}

void PictureArea::mouseMoveEvent(QMouseEvent* event) {
    const QPointF here = event->position();
    if (event->buttons() & Qt::LeftButton) {
        // A clicking hand moves a little.
        dragging_ =
            dragging_ || (here - pressed_).manhattanLength() >= QApplication::startDragDistance();
        if (dragging_) {
            setCursor(Qt::ClosedHandCursor);
            // Moves by whole pixels, so that what was painted can move along.
            const double ratio = devicePixelRatioF();
            const QPointF way = QPointF(((here - last_) * ratio).toPoint()) / ratio;
            View.Pan(way.x(), way.y());
            last_ += way;
            ViewChanged();
        }
    }
    if (OnPointerMoved) OnPointerMoved(View.PixelAt(PointOf(here)));
}

void PictureArea::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) return;
    setCursor(Qt::CrossCursor);
    const PixelPoint pixel = View.PixelAt(PointOf(event->position()));
    if (!dragging_ && OnClicked && View.OnImage(pixel)) OnClicked(pixel);
    dragging_ = false;
}

void PictureArea::mouseDoubleClickEvent(QMouseEvent* event) {
    const PixelPoint pixel = View.PixelAt(PointOf(event->position()));
    dragging_ = true;  // the second release is not another click
    if (event->button() == Qt::LeftButton && OnDoubleClicked && View.OnImage(pixel)) {
        OnDoubleClicked(pixel);
    }
}

void PictureArea::keyPressEvent(QKeyEvent* event) {
    constexpr double step = 60;
    switch (event->key()) {
        case Qt::Key_Left:
            View.Pan(step, 0);
            break;
        case Qt::Key_Right:
            View.Pan(-step, 0);
            break;
        case Qt::Key_Up:
            View.Pan(0, step);
            break;
        case Qt::Key_Down:
            View.Pan(0, -step);
            break;
        default:
            QWidget::keyPressEvent(event);
            return;
    }
    ViewChanged();
}

void PictureArea::contextMenuEvent(QContextMenuEvent* event) {
    const bool byKey = event->reason() == QContextMenuEvent::Keyboard;
    const QPoint at = byKey ? rect().center() : event->pos();
    const PixelPoint pixel = View.PixelAt(PointOf(at));
    if (OnContextMenu && View.OnImage(pixel)) OnContextMenu(pixel, mapToGlobal(at));
}

void PictureArea::leaveEvent(QEvent* /*event*/) {
    if (OnPointerLeft) OnPointerLeft();
}

}  // namespace vestrel
