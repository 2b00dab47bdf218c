// The drawings of the analysis windows: histogram, residuals and radial profile.
#pragma once

#include <QWidget>
#include <functional>
#include <optional>
#include <vector>

#include "display/libDisplayLevels.h"
#include "display/libPlot.h"
#include "display/libResiduals.h"
#include "display/libViewGeometry.h"
#include "photometry/libStarStatistics.h"

namespace vestrel {

/// The histogram of an image, with lines at its two levels.
class HistogramArea : public QWidget {
 public:
    HistogramArea();
    ImageHistogram Histogram;
    CountLevels Span;
    CountLevels Levels;
    bool Logarithmic = true;
    /// Called with the new levels when one of the two lines was dragged.
    std::function<void(const CountLevels&)> OnDragged;

 protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

 private:
    PlotAxis Counts() const;
    double CountLevels::*dragged_ = &CountLevels::Black;
};

/// Residuals as magnified vectors over the frame, and the histogram of their lengths below it.
class ResidualArea : public QWidget {
 public:
    ResidualArea();
    std::vector<Residual> Residuals;
    QSize ImageSize;  ///< width and height as displayed
    ViewGeometry View;

 protected:
    void paintEvent(QPaintEvent* event) override;

 private:
    void PaintVectors(QPainter& painter, const QRect& place) const;
    void PaintHistogram(QPainter& painter, const QRect& place) const;
};

/// The pixels around a star by their distance from it, and the fitted Moffat profile.
class ProfileArea : public QWidget {
 public:
    ProfileArea();
    std::vector<ProfilePoint> Points;
    std::optional<StarMeasurement> Star;

 protected:
    void paintEvent(QPaintEvent* event) override;
};

}  // namespace vestrel
