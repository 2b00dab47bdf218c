// The image window: the loaded image as a whole.
#pragma once

#include <QDialog>
#include <QImage>

#include "app/mGeneral.h"

class QLabel;

namespace vestrel {

/// A picture that fills its place as far as its shape allows.
class PictureArea : public QWidget {
 public:
    PictureArea();
    QImage Picture;  ///< null: none

 protected:
    void paintEvent(QPaintEvent* event) override;
};

class ImageWindow : public QDialog {
 public:
    explicit ImageWindow(const ProgramState& state);

    /// The pixels have changed, and nothing is at work on them.
    void ImageChanged();

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    const ProgramState& state_;
    QLabel* size_;
    PictureArea* area_;
};

}  // namespace vestrel
