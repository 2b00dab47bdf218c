// The residuals window: where the matched stars lie against the solution, as vectors over the frame
// and as a histogram of their lengths.
#pragma once

#include <QDialog>

#include "program/mGeneral.h"

class QLabel;

namespace vestrel {

class ResidualArea;

class ResidualsWindow : public QDialog {
 public:
    explicit ResidualsWindow(const ProgramState& state, QWidget* parent = nullptr);

    /// The image or its solution has changed.
    void SolutionChanged();

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    const ProgramState& state_;
    QLabel* trust_;
    QLabel* summary_;
    ResidualArea* area_;
};

}  // namespace vestrel
