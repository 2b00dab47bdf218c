// The levels window: which counts are shown as black and white, and the transfer between them.
#pragma once

#include <QDialog>
#include <cstdint>
#include <functional>
#include <vector>

#include "display/libDisplayLevels.h"
#include "program/mGeneral.h"
#include "program/mPort.h"

class QCheckBox;
class QComboBox;
class QGridLayout;
class QSlider;
class QSpinBox;

namespace vestrel {

class HistogramArea;

class LevelsWindow : public QDialog {
 public:
    LevelsWindow(ProgramState& state, Port& port, QWidget* parent);

    /// Call when the pixels have changed and nothing is working on them.
    void ImageChanged();
    /// Call when the levels were set elsewhere.
    void LevelsChanged();

    /// Called when the user has changed the levels or the transfer.
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
    Port& port_;
    std::vector<std::int32_t> sample_;  ///< some counts of the image in the histogram
    HistogramArea* area_;
    LevelRow black_;
    LevelRow white_;
    QComboBox* transfer_ = nullptr;
    QCheckBox* logarithmic_ = nullptr;
};

}  // namespace vestrel
