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

    /// Measures the star at a place of the image as the next one.
    void Take(const PixelPoint& pixel);
    /// Call when the image has changed and nothing is working on it.
    void ImageChanged();

    /// Called with the stars to mark on the image: the first and, when a row was completed, the
    /// second.
    std::function<void(const std::vector<StarMeasurement>&)> OnTaken;

 protected:
    void showEvent(QShowEvent* event) override;

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
