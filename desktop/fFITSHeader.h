// The header window.
#pragma once

#include <QDialog>

#include "program/mGeneral.h"

class QPlainTextEdit;

namespace vestrel {

/// Shows the header of the loaded image as lines of text.
class HeaderWindow : public QDialog {
 public:
    explicit HeaderWindow(const ProgramState& state);

    /// Call when there may be another image.
    void ImageChanged();

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    const ProgramState& state_;
    QPlainTextEdit* text_;
};

}  // namespace vestrel
