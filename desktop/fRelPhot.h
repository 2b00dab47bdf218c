// The relative photometry window: magnitude differences of clicked stars in a table.
#pragma once

#include <QDialog>
#include <functional>
#include <vector>

#include "program/mGeneral.h"
#include "program/mRelativePhotometry.h"

class QCheckBox;
class QLabel;
class QPushButton;
class QTableWidget;

namespace vestrel {

class RelativePhotometryWindow : public QDialog {
 public:
    RelativePhotometryWindow(ProgramState& state, Port& port, QWidget* parent = nullptr);

    /// Takes the star at a place of the image as the next one.
    void Take(const PixelPoint& pixel);
    /// The image has changed, and nothing is at work on it.
    void ImageChanged();

    /// The stars to be marked on the image: the first and, when a row was made, the second.
    std::function<void(const std::vector<StarMeasurement>&)> OnTaken;

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
