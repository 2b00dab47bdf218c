// The parameters dialog.
#pragma once

#include <QDialog>
#include <array>
#include <functional>

#include "program/mParameterTexts.h"

class QLineEdit;

namespace vestrel {

class ParametersWindow : public QDialog {
 public:
    /// @param showHelp opens the help window
    ParametersWindow(ProgramState& state, Port& port, std::function<void()> showHelp,
                     QWidget* parent);

 private:
    void ShowTexts(const ParameterTexts& texts);
    void Ok();

    ProgramState& state_;
    Port& port_;
    std::array<QLineEdit*, ParameterBoxes.size()> boxes_{};
};

}  // namespace vestrel
