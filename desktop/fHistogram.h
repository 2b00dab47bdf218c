// The levels window: which counts are shown black and white, and how brightness runs between them.
#pragma once

#include <QDialog>
#include <functional>

#include "display/libDisplayLevels.h"
#include "program/mGeneral.h"

class QCheckBox;
class QComboBox;
class QGridLayout;
class QSlider;
class QSpinBox;

namespace vestrel {

class HistogramArea;

class LevelsWindow : public QDialog {
 public:
    explicit LevelsWindow(ProgramState& state, QWidget* parent = nullptr);

    /// The pixels have changed, and nothing is at work on them.
    void ImageChanged();
    /// The levels were set elsewhere.
    void LevelsChanged();

    /// The user has changed levels or transfer.
    std::function<void()> OnLevelsChanged;

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    struct LevelRow {
        QSlider* Slider = nullptr;
        QSpinBox* Number = nullptr;
    };
    LevelRow AddLevel(QGridLayout* layout, int row, const char* name, const QString& caption,
                      double CountLevels::*level);
    void TakeLevels(const CountLevels& levels, bool keepsSpan);
    void ShowLevels();
    CountLevels Levels() const;

    ProgramState& state_;
    HistogramArea* area_;
    LevelRow black_;
    LevelRow white_;
    QComboBox* transfer_ = nullptr;
    QCheckBox* logarithmic_ = nullptr;
};

}  // namespace vestrel
