#include "desktop/libGraph.h"

#include <QFontMetrics>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <utility>

#include "astro/libStrings.h"
#include "desktop/libWindows.h"
#include "display/libPlot.h"
#include "photometry/libProfileFit.h"

namespace vestrel {

namespace {

/// The area of the drawing, with space for the numbers below and to its left.
QRect PlotPlace(const QWidget& widget, bool numbersAtLeft) {
    const QFontMetrics metrics(widget.font());
    const int left = numbersAtLeft ? metrics.horizontalAdvance("-000000 ") : 8;
    return widget.rect().adjusted(left, 8, -12, -(metrics.height() + 8));
}

void PaintFrame(QPainter& painter, const QWidget& widget, const QRect& place) {
    painter.fillRect(widget.rect(), widget.palette().color(QPalette::Window));
    painter.fillRect(place, widget.palette().color(QPalette::Base));
    painter.setPen(widget.palette().color(QPalette::Mid));
    painter.drawRect(place);
}

/// The colour of bars. Large bright areas would spoil eyes that are used to the dark.
QColor BarColour(const QPalette& palette) {
    constexpr int percent = 160;
    const QColor colour = palette.color(QPalette::Highlight);
    return IsRedOnly(palette) ? colour.darker(percent) : colour;
}

void PaintTicksBelow(QPainter& painter, const QWidget& widget, const QRect& place,
                     const PlotAxis& axis) {
    const QFontMetrics metrics(widget.font());
    painter.setPen(widget.palette().color(QPalette::WindowText));
    for (const double tick : RoundTicks(axis.Low, axis.High, 6)) {
        const int x = qRound(axis.PlaceOf(tick));
        painter.drawLine(x, place.bottom(), x, place.bottom() + 4);
        const QString text = QtText(NumberText(tick));
        const QRect room(x - 60, place.bottom() + 5, 120, metrics.height());
        painter.drawText(room, Qt::AlignCenter, text);
    }
}

void PaintTicksAtLeft(QPainter& painter, const QWidget& widget, const QRect& place,
                      const PlotAxis& axis) {
    const QFontMetrics metrics(widget.font());
    painter.setPen(widget.palette().color(QPalette::WindowText));
    // Texts do not touch, however low the plot is.
    const int most = qBound(2, place.height() / metrics.height(), 7);
    for (const double tick : RoundTicks(axis.Low, axis.High, most)) {
        const int y = qRound(axis.PlaceOf(tick));
        painter.drawLine(place.left() - 4, y, place.left(), y);
        const QRect room(0, y - metrics.height() / 2, place.left() - 7, metrics.height());
        painter.drawText(room, Qt::AlignRight | Qt::AlignVCenter, QtText(NumberText(tick)));
    }
}

}  // namespace

HistogramArea::HistogramArea() {
    setObjectName("picHistogram");
    setAccessibleName("Histogram");
    setMinimumSize(320, 160);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void HistogramArea::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    const QRect place = PlotPlace(*this, false);
    PaintFrame(painter, *this, place);
    if (Histogram.Pixels == 0) return;
    const PlotAxis counts = Counts();
    PaintTicksBelow(painter, *this, place, counts);
    const std::vector<double> columns =
        HistogramColumns(Histogram, Span, place.width(), Logarithmic);
    const PlotAxis heights{0, 1, double(place.bottom()), double(place.top() + 3)};
    painter.setPen(BarColour(palette()));
    for (int i = 0; i < place.width(); ++i) {
        const double height = columns[static_cast<std::size_t>(i)];
        if (height <= 0) continue;
        const int x = place.left() + i;
        painter.drawLine(x, place.bottom(), x, qRound(heights.PlaceOf(height)));
    }
    painter.setPen(QPen(palette().color(QPalette::WindowText), 1, Qt::DashLine));
    for (const double level : {Levels.Black, Levels.White}) {
        const int x = qRound(counts.PlaceOf(level));
        painter.drawLine(x, place.top(), x, place.bottom());
    }
}

PlotAxis HistogramArea::Counts() const {
    const QRect place = PlotPlace(*this, false);
    return {Span.Black, Span.White, double(place.left()), double(place.right())};
}

void HistogramArea::mousePressEvent(QMouseEvent* event) {
    const PlotAxis counts = Counts();
    const double x = event->position().x();
    const bool black =
        qAbs(counts.PlaceOf(Levels.Black) - x) < qAbs(counts.PlaceOf(Levels.White) - x);
    dragged_ = black ? &CountLevels::Black : &CountLevels::White;
    mouseMoveEvent(event);
}

void HistogramArea::mouseMoveEvent(QMouseEvent* event) {
    if (!(event->buttons() & Qt::LeftButton) || Histogram.Pixels == 0 || !OnDragged) return;
    CountLevels levels = Levels;
    levels.*dragged_ = Counts().ValueAt(event->position().x());
    OnDragged(levels);
}

ResidualArea::ResidualArea() {
    setObjectName("picResiduals");
    setAccessibleName("Residuals of the matched stars");
    setMinimumSize(320, 320);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void ResidualArea::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(rect(), palette().color(QPalette::Window));
    if (Residuals.empty() || ImageSize.isEmpty()) return;
    const int textHeight = fontMetrics().height();
    const int below = qMax(height() / 4, 90);
    const QRect upper = rect().adjusted(8, 4, -8, -(below + textHeight + 8));
    const QSize size = ImageSize.scaled(upper.size(), Qt::KeepAspectRatio);
    PaintVectors(painter, QRect(upper.left() + (upper.width() - size.width()) / 2, upper.top(),
                                size.width(), size.height()));
    PaintHistogram(painter,
                   QRect(8 + fontMetrics().horizontalAdvance("-000000 "), height() - below + 4,
                         width() - 24 - fontMetrics().horizontalAdvance("-000000 "),
                         below - 2 * textHeight - 12));
}

void ResidualArea::PaintVectors(QPainter& painter, const QRect& place) const {
    painter.fillRect(place, palette().color(QPalette::Base));
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(place);
    const double times = ResidualMagnification(Residuals, ImageSize.width(), ImageSize.height());
    ViewGeometry view = View;
    view.SetWindow(place.width(), place.height());
    const auto at = [&](double x, double y) {
        const ScreenPoint point = view.ScreenOf({x, y});
        return QPointF(place.left() + point.X, place.top() + point.Y);
    };
    painter.save();
    painter.setClipRect(place.adjusted(1, 1, 0, 0));
    const QColor colour = palette().color(QPalette::Link);
    for (const Residual& one : Residuals) {
        const QPointF from = at(one.Predicted.X, one.Predicted.Y);
        const QPointF to = at(one.Predicted.X + times * one.Dx, one.Predicted.Y + times * one.Dy);
        painter.setPen(QPen(colour, 1.5));
        painter.drawLine(from, to);
        painter.setPen(Qt::NoPen);
        painter.setBrush(colour);
        painter.drawEllipse(from, 2, 2);
    }
    painter.restore();
    painter.setPen(palette().color(QPalette::WindowText));
    painter.drawText(QRect(0, place.bottom() + 4, width(), fontMetrics().height()),
                     Qt::AlignHCenter,
                     "From where the solution puts a star (dot) to where it is, " +
                         QtText(NumberText(times)) + " times enlarged");
}

void ResidualArea::PaintHistogram(QPainter& painter, const QRect& place) const {
    const ResidualHistogram histogram = HistogramOf(Residuals);
    const auto bins = static_cast<int>(histogram.Counts.size());
    const int most = *std::max_element(histogram.Counts.begin(), histogram.Counts.end());
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.fillRect(place, palette().color(QPalette::Base));
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(place);
    const PlotAxis x{0, bins * histogram.BinWidth, double(place.left()), double(place.right())};
    const PlotAxis y{0, double(most), double(place.bottom()), double(place.top() + 3)};
    PaintTicksBelow(painter, *this, place, x);
    PaintTicksAtLeft(painter, *this, place, y);
    painter.setPen(palette().color(QPalette::Base));
    painter.setBrush(BarColour(palette()));
    for (int k = 0; k < bins; ++k) {
        const int left = qRound(x.PlaceOf(k * histogram.BinWidth));
        const int right = qRound(x.PlaceOf((k + 1) * histogram.BinWidth));
        const int top = qRound(y.PlaceOf(histogram.Counts[static_cast<std::size_t>(k)]));
        if (top < place.bottom()) painter.drawRect(left, top, right - left, place.bottom() - top);
    }
    painter.setPen(palette().color(QPalette::WindowText));
    painter.drawText(
        QRect(0, place.bottom() + fontMetrics().height() + 6, width(), fontMetrics().height()),
        Qt::AlignHCenter, "Stars by the length of their residual, pixels");
}

ProfileArea::ProfileArea() {
    setObjectName("picProfile");
    setAccessibleName("Radial profile");
    setMinimumSize(300, 180);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void ProfileArea::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRect place = PlotPlace(*this, true);
    PaintFrame(painter, *this, place);
    if (!Star || Points.empty()) return;
    const ProfileFit& fit = Star->Moffat.Valid ? Star->Moffat : Star->Gaussian;
    const CountLevels span = ProfileSpan(Points, fit);
    const PlotAxis radii{0, Points.back().Radius, double(place.left()), double(place.right())};
    const PlotAxis values{span.Black, span.White, double(place.bottom()), double(place.top())};
    PaintTicksBelow(painter, *this, place, radii);
    PaintTicksAtLeft(painter, *this, place, values);
    painter.setClipRect(place);
    painter.setPen(QPen(palette().color(QPalette::Mid), 1));
    painter.drawLine(QPointF(place.left(), values.PlaceOf(0)),
                     QPointF(place.right(), values.PlaceOf(0)));
    painter.setPen(QPen(palette().color(QPalette::WindowText), 1, Qt::DashLine));
    const double aperture = radii.PlaceOf(Star->Radii.Aperture);
    painter.drawLine(QPointF(aperture, place.top()), QPointF(aperture, place.bottom()));
    painter.setPen(Qt::NoPen);
    painter.setBrush(palette().color(QPalette::Highlight));
    for (const ProfilePoint& point : Points) {
        painter.drawEllipse(QPointF(radii.PlaceOf(point.Radius), values.PlaceOf(point.Value)), 1.8,
                            1.8);
    }
    if (!fit.Valid) return;
    QPainterPath path;
    for (int x = place.left(); x <= place.right(); ++x) {
        const QPointF point(x, values.PlaceOf(ProfileValue(fit, radii.ValueAt(x))));
        if (x == place.left()) path.moveTo(point);
        path.lineTo(point);
    }
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(StatusTextColour(StatusColour::Red, palette()), 1.5));
    painter.drawPath(path);
}

}  // namespace vestrel
