// The part of the image window that shows the image, with zoom, pan and pointer events.
#pragma once

#include <QWidget>
#include <functional>

#include "display/libPictureView.h"
#include "display/libViewGeometry.h"

namespace vestrel {

/// The wheel zooms about the pointer, dragging moves the image, and a click without moving is
/// reported.
class PictureArea : public QWidget {
 public:
    PictureArea();

    PicturePyramid Picture;
    ViewGeometry View;

    std::function<void()> OnBeforePaint;
    std::function<void(QPainter&)> OnPaintOverlays;
    std::function<void()> OnViewChanged;
    std::function<void(PixelPoint)> OnPointerMoved;
    std::function<void()> OnPointerLeft;
    std::function<void(PixelPoint)> OnClicked;
    std::function<void(PixelPoint)> OnDoubleClicked;
    /// Called when the context menu of a place is requested; from the keyboard, of the middle of
    /// the window.
    std::function<void(PixelPoint, QPoint)> OnContextMenu;

    void Fit();
    /// Zooms about the middle of the window, as does `ZoomBy`.
    void ZoomTo(double scale);
    void ZoomBy(double steps);

 protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void leaveEvent(QEvent* event) override;

 private:
    void ViewChanged();

    DraggedView shown_;
    QPointF pressed_;
    QPointF last_;
    bool dragging_ = false;
};

}  // namespace vestrel
