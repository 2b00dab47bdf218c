// Everything that lies over a picture, apart from any window: it can be painted anywhere, on any
// thread.
#pragma once

#include <QPainter>
#include <QSize>
#include <QString>
#include <vector>

#include "display/libSkyGrid.h"
#include "display/libSkyObjects.h"
#include "display/libViewGeometry.h"
#include "program/mImageView.h"

namespace vestrel {

class OverlayPainter;

/// A star that was measured: its aperture, the sky ring around it, and what it is called.
struct MeasuredMark {
    PixelPoint Place;
    double Aperture = 0;  ///< pixels
    double Inner = 0;     ///< 0: no ring
    double Outer = 0;
    QString Name;
};

/// Which parts are shown.
struct OverlaySwitches {
    bool Extracted = false;
    bool Catalog = false;
    bool Matched = false;
    bool Magnitudes = false;
    bool Compass = false;
    bool Grid = false;
    bool Names = false;
};

struct Annotation {
    Overlays Stars;
    std::vector<ObjectOnImage> Objects;
    std::vector<MeasuredMark> Marks;
    OverlaySwitches Shows;

    /// @param grid of what the view shows
    void Paint(QPainter& painter, const ViewGeometry& view, const QSize& size,
               const SkyGrid& grid) const;

 private:
    void PaintStars(OverlayPainter& over) const;
    void PaintNames(OverlayPainter& over, const ViewGeometry& view) const;
};

}  // namespace vestrel
