// Draws the overlays. Sizes are in screen pixels and do not scale with the image.
#pragma once

#include <QColor>
#include <QFont>
#include <QGlyphRun>
#include <QImage>
#include <QList>
#include <QPainter>
#include <QString>
#include <unordered_map>
#include <vector>

#include "display/libLabelPlacement.h"
#include "display/libSkyGrid.h"
#include "display/libViewGeometry.h"

namespace vestrel {

inline constexpr QColor ExtractedColour(255, 205, 60);
inline constexpr QColor CatalogColour(90, 190, 255);
inline constexpr QColor MatchedColour(80, 230, 110);
inline constexpr QColor GridColour(120, 150, 255);
inline constexpr QColor MeasuredColour(255, 110, 200);

inline constexpr QColor NameColour(255, 175, 255);

/// The priority of labels, most important first.
enum class LabelWorth { Measured, Name, Grid, Figure };

/// Keeps texts laid out, which takes longer than to paint them.
class KeptTexts {
 public:
    struct Text {
        double Width = 0;   ///< its advance
        double Ascent = 0;  ///< from the origin of its glyphs down to its baseline
        QList<QGlyphRun> Glyphs;
    };
    /// The reference holds until the next call.
    const Text& Of(const QString& text, const QFont& font);

 private:
    QFont font_;  ///< of all texts
    std::unordered_map<QString, Text> texts_;
};

/// What is painted: the marks that are fixed to the image, or, after all of them, the labels, which
/// keep clear of them, and what else depends on the limits of the view.
enum class OverlayStep { Marks, Labels };

/// Paints over a view. Texts and lines get a dark rim, so that they are visible on any background.
/// In each step, calls for the other one paint nothing.
class OverlayPainter {
 public:
    /// @param part of the view, outside of which marks need not be painted
    OverlayPainter(QPainter& painter, const ViewGeometry& view, const QSize& size, OverlayStep step,
                   const QRectF& part);

    KeptTexts* Texts = nullptr;  ///< where labels are kept from one painting to the next
    bool RedOnly = false;        ///< nothing but red will be let through: colours become greys

    void Circle(const PixelPoint& place, double radius, const QColor& colour);
    /// A circle whose radius is in image pixels.
    void Aperture(const PixelPoint& place, double imageRadius, const QColor& colour, bool dashed);
    void Cross(const PixelPoint& place, double radius, const QColor& colour);
    /// A cross that leaves its middle free, for what is there to be seen.
    void OpenCross(const PixelPoint& place, double radius, const QColor& colour);
    /// A line from one place of the image to another.
    void Link(const PixelPoint& from, const PixelPoint& to, const QColor& colour);
    /// A closed line through places of the image.
    /// @param reach of the line from its middle, image pixels
    void Outline(const std::vector<PixelPoint>& line, const PixelPoint& middle, double reach,
                 const QColor& colour);
    /// Adds a label beside a mark, where there is room; `PaintLabels` draws it. Labels of equal
    /// worth keep their order.
    void Label(const PixelPoint& place, double radius, const QString& text, const QColor& colour,
               LabelWorth worth = LabelWorth::Figure);
    void PaintLabels();
    void GridLines(const SkyGrid& grid);
    void GridLabels(const SkyGrid& grid);
    /// North and east in the upper right corner, a scale bar in the lower left one. Labels keep
    /// clear of them.
    void CompassAndScale(const SkyMap& map);

 private:
    /// A mark of fixed size, drawn once as a picture, which is painted far faster than a path.
    enum class Shape { Circle, Cross, OpenCross };
    struct Stamp {
        Shape Kind = Shape::Circle;
        double Radius = 0;
        QRgb Colour = 0;
        QImage Picture;
    };
    static QPainterPath PathOf(Shape shape, const QPointF& middle, double radius);
    void PutStamp(const PixelPoint& place, Shape shape, double radius, const QColor& ofMark);

    struct PendingLabel {
        LabelWish Wish;
        QString Text;
        QColor Colour;
        LabelWorth Worth = LabelWorth::Figure;
    };
    void AddLabel(const ScreenPoint& mark, double radius, bool fixed, const QString& text,
                  const QColor& colour, LabelWorth worth);

    QColor Shown(const QColor& colour) const;
    bool Shows(const QPointF& point, double margin) const;
    bool IsInPart(const QRectF& box) const;
    QPointF At(const PixelPoint& place) const;
    QPainterPath PathThrough(const std::vector<PixelPoint>& line) const;
    static void Stroke(QPainter& painter, const QPainterPath& path, const QColor& colour,
                       double width = 1.5, Qt::PenStyle style = Qt::SolidLine);
    /// Strokes a mark when it reaches into the part that is painted.
    void StrokeMark(const QPainterPath& path, const QColor& colour);
    double WidthOf(const QString& text) const;
    void Text(const QPointF& baseline, const QString& text, const QColor& colour);
    /// Lets no label cover a box.
    void KeepClear(const QRectF& box);
    void Arrow(const QPointF& from, const ScreenPoint& direction, const QString& name);

    QPainter& painter_;
    const ViewGeometry& view_;
    QSizeF size_;
    OverlayStep step_;
    QRectF part_;
    bool keepsPaths_;  ///< a page stays sharp at any size
    std::vector<Stamp> stamps_;
    std::vector<PendingLabel> labels_;
    std::vector<ScreenBox> marks_;  ///< boxes that no label may cover
};

}  // namespace vestrel
