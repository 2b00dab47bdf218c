#include "desktop/fAnnotation.h"

#include <algorithm>

#include "desktop/libGraphics.h"
#include "desktop/libWindows.h"

namespace vestrel {

namespace {

constexpr double markRadius = 9;

}  // namespace

void Annotation::Paint(QPainter& painter, const ViewGeometry& view, const QSize& size,
                       const SkyGrid& grid) const {
    PaintGrid(painter, view, size, grid);
    PaintMarks(painter, view, size, QRectF(QPointF(), size));
    PaintLabels(painter, view, size, grid, nullptr);
}

void Annotation::PaintGrid(QPainter& painter, const ViewGeometry& view, const QSize& size,
                           const SkyGrid& grid) const {
    if (!Shows.Grid || !Stars.Map) return;
    OverlayPainter over(painter, view, size, OverlayStep::Marks, QRectF(QPointF(), size));
    over.RedOnly = RedOnly;
    over.GridLines(grid);
}

void Annotation::PaintMarks(QPainter& painter, const ViewGeometry& view, const QSize& size,
                            const QRectF& part) const {
    OverlayPainter over(painter, view, size, OverlayStep::Marks, part);
    over.RedOnly = RedOnly;
    PaintImageMarks(over, view);
}

void Annotation::PaintLabels(QPainter& painter, const ViewGeometry& view, const QSize& size,
                             const SkyGrid& grid, KeptTexts* kept) const {
    OverlayPainter over(painter, view, size, OverlayStep::Labels, QRectF(QPointF(), size));
    over.Texts = kept;
    over.RedOnly = RedOnly;
    if (Shows.Grid && Stars.Map) over.GridLabels(grid);
    PaintImageMarks(over, view);
    if (Shows.Compass && Stars.Map) over.CompassAndScale(*Stars.Map);
    over.PaintLabels();
}

void Annotation::PaintImageMarks(OverlayPainter& over, const ViewGeometry& view) const {
    PaintStars(over);
    if (Shows.Names) PaintNames(over, view);
    for (const MeasuredMark& mark : Marks) {
        over.Aperture(mark.Place, mark.Aperture, MeasuredColour, false);
        if (mark.Inner > 0) over.Aperture(mark.Place, mark.Inner, MeasuredColour, true);
        if (mark.Outer > 0) over.Aperture(mark.Place, mark.Outer, MeasuredColour, true);
        over.Label(mark.Place, mark.Aperture * view.Scale(), mark.Name, MeasuredColour,
                   LabelWorth::Measured);
    }
}

void Annotation::PaintNames(OverlayPainter& over, const ViewGeometry& view) const {
    for (const ObjectOnImage& one : Objects) {
        double radius = markRadius;
        if (!one.Outline.empty()) {
            over.Outline(one.Outline, one.Place, one.Reach, NameColour);
            // Outside of what is round and small; across what is large.
            constexpr double largest = 60;
            const double reach = one.Reach * view.Scale();
            if (reach < largest) radius = std::max(radius, reach);
        }
        over.Label(one.Place, radius, QtText(one.Object->Label()), NameColour, LabelWorth::Name);
    }
}

void Annotation::PaintStars(OverlayPainter& over) const {
    // Rings of different sizes, as most stars are of all three kinds.
    constexpr double outerRadius = markRadius + 4;
    if (Shows.Catalog) {
        for (const OverlayStar& star : Stars.Catalog) {
            over.Cross(star.Place, markRadius / 2, CatalogColour);
            if (Shows.Magnitudes) {
                over.Label(star.Place, markRadius, QtText(star.Magnitude), CatalogColour);
            }
        }
    }
    if (Shows.Extracted) {
        for (const OverlayStar& star : Stars.Extracted) {
            over.Circle(star.Place, markRadius, ExtractedColour);
            // A catalog magnitude in the same place says more.
            if (Shows.Magnitudes && !Shows.Catalog && !Shows.Matched) {
                over.Label(star.Place, markRadius, QtText(star.Magnitude), ExtractedColour);
            }
        }
    }
    if (Shows.Matched) {
        for (const OverlayPair& pair : Stars.Matched) {
            over.Circle(pair.OnImage.Place, outerRadius, MatchedColour);
            over.OpenCross(pair.InCatalog, outerRadius, MatchedColour);
            over.Link(pair.OnImage.Place, pair.InCatalog, MatchedColour);
            if (Shows.Magnitudes && !Shows.Catalog) {
                over.Label(pair.OnImage.Place, outerRadius, QtText(pair.OnImage.Magnitude),
                           MatchedColour);
            }
        }
    }
}

}  // namespace vestrel
