// The relative photometry window: magnitude differences of clicked stars in a table.
#pragma once

#include <QDialog>
#include <functional>
#include <string>

#include "app/mGeneral.h"
#include "viewer/mRelativePhotometry.h"

class QCheckBox;
class QLabel;
class QPushButton;
class QTableWidget;

namespace vestrel {

class RelativePhotometryWindow : public QDialog {
 public:
    RelativePhotometryWindow(ProgramState& state, Port& port);

    /// Takes the star at a place of the image as the next one.
    void Take(const PixelPoint& pixel);
    /// The image has changed, and nothing is at work on it.
    void ImageChanged();

    /// A star was taken, or the pair was given up.
    std::function<void(const PhotometryTable&)> OnTaken;

 private:
    void ShowTable();
    void GiveFirstUp();

    ProgramState& state_;
    Port& port_;
    PhotometryTable table_;
    QLabel* hint_;
    QLabel* outcome_;
    QTableWidget* rows_;
    QCheckBox* keep_;
    QPushButton* export_ = nullptr;
    QPushButton* clear_ = nullptr;
};

}  // namespace vestrel
