#include "desktop/libGraphics.h"

#include <QFontMetricsF>
#include <QPaintEngine>
#include <QPainterPath>
#include <QTextLayout>
#include <algorithm>

#include "desktop/libWindows.h"

namespace vestrel {

namespace {

/// How far a mark reaches beyond its line: half of the rim's width, and a pixel for its smooth
/// edge.
constexpr double rimReach = 3;

}  // namespace

const KeptTexts::Text& KeptTexts::Of(const QString& text, const QFont& font) {
    constexpr std::size_t most = 10000;
    if (font != font_ || texts_.size() >= most) texts_.clear();
    font_ = font;
    const auto [place, isNew] = texts_.try_emplace(text);
    if (isNew) {
        QTextLayout layout(text, font);
        layout.beginLayout();
        const QTextLine line = layout.createLine();
        layout.endLayout();
        place->second = {QFontMetricsF(font).horizontalAdvance(text), line.ascent(),
                         layout.glyphRuns()};
    }
    return place->second;
}

OverlayPainter::OverlayPainter(QPainter& painter, const ViewGeometry& view, const QSize& size,
                               OverlayStep step, const QRectF& part)
    : painter_(painter),
      view_(view),
      size_(size),
      step_(step),
      part_(part),
      keepsPaths_(painter.paintEngine()->type() == QPaintEngine::Pdf) {
    painter_.setRenderHint(QPainter::Antialiasing);
    painter_.setBrush(Qt::NoBrush);
}

QPointF OverlayPainter::At(const PixelPoint& place) const {
    const ScreenPoint point = view_.ScreenOf(place);
    return {point.X, point.Y};
}

QColor OverlayPainter::Shown(const QColor& colour) const {
    // Without this, green and blue would be next to black.
    return RedOnly ? QColor(colour.value(), colour.value(), colour.value()) : colour;
}

bool OverlayPainter::Shows(const QPointF& point, double margin) const {
    return QRectF(QPointF(), size_).adjusted(-margin, -margin, margin, margin).contains(point);
}

bool OverlayPainter::IsInPart(const QRectF& box) const {
    return box.adjusted(-rimReach, -rimReach, rimReach, rimReach).intersects(part_);
}

QPainterPath OverlayPainter::PathThrough(const std::vector<PixelPoint>& line) const {
    QPainterPath path;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (i == 0) path.moveTo(At(line[i]));
        if (i > 0) path.lineTo(At(line[i]));
    }
    return path;
}

void OverlayPainter::Stroke(QPainter& painter, const QPainterPath& path, const QColor& colour,
                            double width, Qt::PenStyle style) {
    painter.setPen(QPen(QColor(0, 0, 0, 130), width + 1.5, style));
    painter.drawPath(path);
    painter.setPen(QPen(colour, width, style));
    painter.drawPath(path);
}

void OverlayPainter::StrokeMark(const QPainterPath& path, const QColor& colour) {
    if (step_ == OverlayStep::Marks && IsInPart(path.boundingRect())) {
        Stroke(painter_, path, Shown(colour));
    }
}

double OverlayPainter::WidthOf(const QString& text) const {
    return Texts != nullptr ? Texts->Of(text, painter_.font()).Width
                            : QFontMetricsF(painter_.font()).horizontalAdvance(text);
}

void OverlayPainter::Text(const QPointF& baseline, const QString& text, const QColor& colour) {
    const KeptTexts::Text* kept = Texts != nullptr ? &Texts->Of(text, painter_.font()) : nullptr;
    const auto draw = [&](const QPointF& at) {
        if (kept == nullptr) return painter_.drawText(at, text);
        for (const QGlyphRun& run : kept->Glyphs) {
            painter_.drawGlyphRun(at - QPointF(0, kept->Ascent), run);
        }
    };
    painter_.setPen(QColor(0, 0, 0, 200));
    for (const QPointF& shift : {QPointF(1, 1), QPointF(-1, 1), QPointF(1, -1), QPointF(-1, -1)}) {
        draw(baseline + shift);
    }
    painter_.setPen(colour);
    draw(baseline);
}

QPainterPath OverlayPainter::PathOf(Shape shape, const QPointF& middle, double radius) {
    QPainterPath path;
    if (shape == Shape::Circle) {
        path.addEllipse(middle, radius, radius);
        return path;
    }
    const double gap = shape == Shape::Cross ? 0 : 0.5 * radius;
    for (const QPointF& arm : {QPointF(1, 0), QPointF(-1, 0), QPointF(0, 1), QPointF(0, -1)}) {
        path.moveTo(middle + gap * arm);
        path.lineTo(middle + radius * arm);
    }
    return path;
}

void OverlayPainter::PutStamp(const PixelPoint& place, Shape shape, double radius,
                              const QColor& ofMark) {
    const QColor colour = Shown(ofMark);
    const QPointF at = At(place);
    const double half = radius + rimReach;
    if (step_ == OverlayStep::Labels) {
        // A label may touch a ring, but not what is inside.
        const double side = 1.4 * radius;
        if (Shows(at, half)) {
            marks_.push_back({at.x() - side / 2, at.y() - side / 2, side, side});
        }
        return;
    }
    if (!IsInPart({at.x() - radius, at.y() - radius, 2 * radius, 2 * radius})) return;
    if (keepsPaths_) return Stroke(painter_, PathOf(shape, at, radius), colour);
    const double ratio = painter_.device()->devicePixelRatioF();
    auto stamp = std::find_if(stamps_.begin(), stamps_.end(), [&](const Stamp& one) {
        return one.Kind == shape && one.Radius == radius && one.Colour == colour.rgba();
    });
    if (stamp == stamps_.end()) {
        QImage picture((QSizeF(2 * half, 2 * half) * ratio).toSize(),
                       QImage::Format_ARGB32_Premultiplied);
        picture.setDevicePixelRatio(ratio);
        picture.fill(Qt::transparent);
        QPainter painter(&picture);
        painter.setRenderHint(QPainter::Antialiasing);
        Stroke(painter, PathOf(shape, QPointF(half, half), radius), colour);
        painter.end();
        stamp = stamps_.insert(stamps_.end(), {shape, radius, colour.rgba(), picture});
    }
    painter_.drawImage(at - QPointF(half, half), stamp->Picture);
}

void OverlayPainter::Circle(const PixelPoint& place, double radius, const QColor& colour) {
    PutStamp(place, Shape::Circle, radius, colour);
}

void OverlayPainter::Cross(const PixelPoint& place, double radius, const QColor& colour) {
    PutStamp(place, Shape::Cross, radius, colour);
}

void OverlayPainter::OpenCross(const PixelPoint& place, double radius, const QColor& colour) {
    PutStamp(place, Shape::OpenCross, radius, colour);
}

void OverlayPainter::Aperture(const PixelPoint& place, double imageRadius, const QColor& colour,
                              bool dashed) {
    // Where the dashes of a line begin depends on the part of it that is painted.
    if (step_ != OverlayStep::Labels) return;
    const double radius = imageRadius * view_.Scale();
    QPainterPath path;
    path.addEllipse(At(place), radius, radius);
    if (IsInPart(path.boundingRect())) {
        Stroke(painter_, path, Shown(colour), 1.5, dashed ? Qt::DashLine : Qt::SolidLine);
    }
}

void OverlayPainter::Link(const PixelPoint& from, const PixelPoint& to, const QColor& colour) {
    StrokeMark(PathThrough({from, to}), colour);
}

void OverlayPainter::Outline(const std::vector<PixelPoint>& line, const PixelPoint& middle,
                             double reach, const QColor& colour) {
    if (step_ != OverlayStep::Marks) return;
    // Most of them are not near a narrow strip, and making their paths takes longer than this.
    constexpr double rounding = 1;
    const QPointF at = At(middle);
    const double radius = reach * view_.Scale() + rounding;
    const bool isNear = IsInPart({at.x() - radius, at.y() - radius, 2 * radius, 2 * radius});
    if (isNear) StrokeMark(PathThrough(line), colour);
}

void OverlayPainter::Label(const PixelPoint& place, double radius, const QString& text,
                           const QColor& colour, LabelWorth worth) {
    if (step_ != OverlayStep::Labels) return;
    const QPointF at = At(place);
    if (!text.isEmpty() && Shows(at, radius)) {
        AddLabel({at.x(), at.y()}, radius, false, text, colour, worth);
    }
}

void OverlayPainter::AddLabel(const ScreenPoint& mark, double radius, bool fixed,
                              const QString& text, const QColor& colour, LabelWorth worth) {
    const QFontMetricsF metrics(painter_.font());
    const LabelWish wish{mark, radius, WidthOf(text) + 2,
                         metrics.capHeight() + metrics.descent() + 2, fixed};
    labels_.push_back({wish, text, Shown(colour), worth});
}

void OverlayPainter::PaintLabels() {
    std::stable_sort(labels_.begin(), labels_.end(),
                     [](const auto& a, const auto& b) { return a.Worth < b.Worth; });
    std::vector<LabelWish> wishes;
    for (const PendingLabel& label : labels_) wishes.push_back(label.Wish);
    const auto places = PlaceLabels(wishes, marks_, size_.width(), size_.height());
    const double descent = QFontMetricsF(painter_.font()).descent();
    for (std::size_t i = 0; i < places.size(); ++i) {
        if (!places[i]) continue;
        Text({places[i]->Left + 1, places[i]->Top + places[i]->Height - descent - 1},
             labels_[i].Text, labels_[i].Colour);
    }
    labels_.clear();
}

void OverlayPainter::GridLines(const SkyGrid& grid) {
    QColor colour = Shown(GridColour);
    colour.setAlpha(150);
    painter_.setPen(QPen(colour, 1));
    for (const GridLine& line : grid.Lines) {
        for (const auto& piece : line.Pieces) painter_.drawPath(PathThrough(piece));
    }
}

void OverlayPainter::GridLabels(const SkyGrid& grid) {
    const QFontMetricsF metrics(painter_.font());
    const QRectF inside = QRectF(QPointF(), size_).adjusted(4, metrics.height(), -4, -4);
    for (const GridLine& line : grid.Lines) {
        const QString text = QtText(line.Label);
        QPointF at = At(line.LabelPlace) + QPointF(4, -4);
        at.setX(qBound(inside.left(), at.x(), inside.right() - WidthOf(text) - 2));
        at.setY(qBound(inside.top(), at.y(), inside.bottom()));
        AddLabel({at.x(), at.y()}, 0, true, text, GridColour, LabelWorth::Grid);
    }
}

void OverlayPainter::KeepClear(const QRectF& box) {
    const QRectF rimmed = box.adjusted(-rimReach, -rimReach, rimReach, rimReach);
    marks_.push_back({rimmed.left(), rimmed.top(), rimmed.width(), rimmed.height()});
}

void OverlayPainter::Arrow(const QPointF& from, const ScreenPoint& direction, const QString& name) {
    constexpr double length = 34;
    constexpr double head = 7;
    const QPointF along(direction.X, direction.Y);
    const QPointF across(-along.y(), along.x());
    const QPointF tip = from + length * along;
    QPainterPath path(from);
    path.lineTo(tip);
    path.moveTo(tip - head * along + head / 2 * across);
    path.lineTo(tip);
    path.lineTo(tip - head * along - head / 2 * across);
    Stroke(painter_, path, Qt::white);
    const QFontMetricsF metrics(painter_.font());
    const QPointF middle = tip + 11 * along;
    const QSizeF letter(metrics.horizontalAdvance(name), metrics.capHeight());
    const QPointF corner = middle - QPointF(letter.width(), letter.height()) / 2;
    Text(corner + QPointF(0, letter.height()), name, Qt::white);
    KeepClear({corner, letter});
    // The box around an oblique arrow would be far larger than the arrow.
    constexpr int pieces = 6;
    for (int piece = 0; piece < pieces; ++piece) {
        const QPointF start = from + length * piece / pieces * along;
        KeepClear(QRectF(start, start + length / pieces * along).normalized());
    }
    KeepClear({tip - QPointF(head, head) / 2, QSizeF(head, head)});
}

void OverlayPainter::CompassAndScale(const SkyMap& map) {
    constexpr double margin = 60;
    constexpr double longestBar = 0.3;
    const QPointF compassPlace(size_.width() - margin, margin);
    const PixelPoint middle = view_.PixelAt(view_.Middle());
    if (const auto compass = map.CompassAt(middle)) {
        Arrow(compassPlace, view_.DirectionOnScreen(compass->North), "N");
        Arrow(compassPlace, view_.DirectionOnScreen(compass->East), "E");
    }
    if (const auto bar = ScaleBarFor(map, longestBar * size_.width() / view_.Scale())) {
        const double length = bar->Pixels * view_.Scale();
        const QPointF left(20, size_.height() - 20);
        QPainterPath path(left - QPointF(0, 5));
        path.lineTo(left);
        path.lineTo(left + QPointF(length, 0));
        path.lineTo(left + QPointF(length, -5));
        Stroke(painter_, path, Qt::white, 2);
        const QString text = QtText(bar->Text);
        const QPointF baseline = left + QPointF(6, -6);
        Text(baseline, text, Qt::white);
        const QFontMetricsF metrics(painter_.font());
        KeepClear(
            {baseline - QPointF(0, metrics.ascent()), QSizeF(WidthOf(text), metrics.height())});
        KeepClear(path.boundingRect());
    }
}

}  // namespace vestrel
