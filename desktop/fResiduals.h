// The residuals window: the residuals of the matched stars as vectors over the frame and as a
// histogram of their lengths.
#pragma once

#include <QDialog>

#include "program/mGeneral.h"

class QLabel;

namespace vestrel {

class ResidualArea;

class ResidualsWindow : public QDialog {
 public:
    explicit ResidualsWindow(const ProgramState& state, QWidget* parent = nullptr);

    /// Call when the image or its solution has changed.
    void SolutionChanged();

 protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

 private:
    const ProgramState& state_;
    QLabel* trust_;
    QLabel* summary_;
    ResidualArea* area_;
};

}  // namespace vestrel
