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

class KeptTexts;
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

    bool operator==(const OverlaySwitches&) const = default;
};

struct Annotation {
    Overlays Stars;
    std::vector<ObjectOnImage> Objects;
    std::vector<MeasuredMark> Marks;
    OverlaySwitches Shows;
    bool RedOnly = false;  ///< nothing but red will be let through

    /// Paints everything, in the order of the steps below.
    /// @param grid of what the view shows
    void Paint(QPainter& painter, const ViewGeometry& view, const QSize& size,
               const SkyGrid& grid) const;

    void PaintGrid(QPainter& painter, const ViewGeometry& view, const QSize& size,
                   const SkyGrid& grid) const;
    /// Paints what is fixed to the image, where it reaches into a part of the view.
    void PaintMarks(QPainter& painter, const ViewGeometry& view, const QSize& size,
                    const QRectF& part) const;
    /// Paints what depends on the limits of the view: apertures, labels, the compass and the scale.
    /// @param kept the labels of earlier paintings; may be null
    void PaintLabels(QPainter& painter, const ViewGeometry& view, const QSize& size,
                     const SkyGrid& grid, KeptTexts* kept) const;

 private:
    void PaintImageMarks(OverlayPainter& over, const ViewGeometry& view) const;
    void PaintStars(OverlayPainter& over) const;
    void PaintNames(OverlayPainter& over, const ViewGeometry& view) const;
};

}  // namespace vestrel
