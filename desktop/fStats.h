// The star statistics window: all measurements of a clicked star, and its radial profile.
#pragma once

#include <QDialog>
#include <functional>
#include <optional>

#include "program/mGeneral.h"
#include "program/mStarStatistics.h"

class QDoubleSpinBox;
class QLabel;
class QPlainTextEdit;
class QPushButton;

namespace vestrel {

class ProfileArea;

class StatsWindow : public QDialog {
 public:
    explicit StatsWindow(ProgramState& state, QWidget* parent = nullptr);

    /// Measures the star at a place of the image.
    void Measure(const PixelPoint& pixel);
    /// Call when the image has changed and nothing is working on it.
    void ImageChanged();

    /// Called when another star was measured, or none.
    std::function<void(const std::optional<StarMeasurement>&)> OnMeasured;

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    QDoubleSpinBox* AddRadius(const char* name, const QString& toolTip, double largest,
                              double SolveParameters::*radius);
    void Clear();
    void Show(const StarReport& report);

    ProgramState& state_;
    QDoubleSpinBox* aperture_;
    QDoubleSpinBox* background_;
    QLabel* warning_;
    QPlainTextEdit* text_;
    ProfileArea* profile_;
    QPushButton* copy_ = nullptr;
    std::optional<PixelPoint> clicked_;
};

}  // namespace vestrel
