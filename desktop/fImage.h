// The image window: the loaded image, what was found on it, and what is under the pointer.
#pragma once

#include <QMainWindow>
#include <functional>
#include <vector>

#include "desktop/fPictureArea.h"
#include "photometry/libStarStatistics.h"
#include "program/mGeneral.h"
#include "program/mImageView.h"

class QAction;
class QLabel;
class QMenu;
class QToolBar;

namespace vestrel {

class OverlayPainter;

/// A star that was measured: its aperture, the sky ring around it, and what it is called.
struct MeasuredMark {
    PixelPoint Place;
    double Aperture = 0;  ///< pixels
    double Inner = 0;     ///< 0: no ring
    double Outer = 0;
    QString Name;
};

MeasuredMark MarkOf(const StarMeasurement& star, const QString& name);

class ImageWindow : public QMainWindow {
 public:
    ImageWindow(ProgramState& state, Port& port);

    /// The pixels have changed, and nothing is at work on them.
    void ImageChanged();
    /// Black, white or the transfer between them have changed.
    void LevelsChanged();
    /// Something has ended, or begun.
    void ActivityChanged();
    void SetMarks(std::vector<MeasuredMark> marks);

    std::function<void(PixelPoint)> OnStarClicked;
    std::function<void(PixelPoint)> OnStarDoubleClicked;
    /// Files were dropped on the image.
    std::function<void(const QStringList&)> OnFilesDropped;
    /// The image got its first levels.
    std::function<void()> OnLevelsChosen;

 protected:
    void showEvent(QShowEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

 private:
    void BuildMenus();
    void BuildStatusBar();
    QAction* AddCommand(QMenu* menu, const char* name, const QString& text,
                        const QKeySequence& keys, std::function<void()> command);
    QAction* AddSwitch(QMenu* menu, const char* name, const QString& text, const QString& shortText,
                       const QKeySequence& keys);

    void BuildPicture();
    void ShowViewChange();
    void PaintOverlays(QPainter& painter);
    void PaintStars(OverlayPainter& over) const;
    void ShowReadout(const PixelPoint& pixel);
    void ClearReadout();
    void Flip();
    void CopyView();
    void ExportView();

    ProgramState& state_;
    Port& port_;
    PictureArea* area_;
    QToolBar* bar_ = nullptr;
    QLabel* size_ = nullptr;
    QLabel* zoom_ = nullptr;
    QLabel* pixel_ = nullptr;
    QLabel* count_ = nullptr;
    QLabel* sky_ = nullptr;
    QAction* invert_ = nullptr;
    QAction* flipLeftRight_ = nullptr;
    QAction* flipUpDown_ = nullptr;
    QAction* extracted_ = nullptr;
    QAction* catalog_ = nullptr;
    QAction* matched_ = nullptr;
    QAction* magnitudes_ = nullptr;
    QAction* compass_ = nullptr;
    QAction* grid_ = nullptr;

    Overlays overlays_;
    SkyGrid skyGrid_;
    bool skyGridFits_ = false;  ///< it was made for the view as it is
    std::vector<MeasuredMark> marks_;
    bool pictureIsOld_ = false;  ///< it is to be built as soon as nothing runs
    bool solutionSeen_ = false;  ///< the overlays of the present solution were switched on
    std::string shownFile_;
};

}  // namespace vestrel
