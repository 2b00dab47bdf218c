// The header window.
#pragma once

#include <QDialog>

#include "app/mGeneral.h"

class QPlainTextEdit;

namespace vestrel {

/// Shows the header of the loaded image as lines of text; filled each time it is shown.
class HeaderWindow : public QDialog {
 public:
    explicit HeaderWindow(const ProgramState& state);

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    const ProgramState& state_;
    QPlainTextEdit* text_;
};

}  // namespace vestrel
