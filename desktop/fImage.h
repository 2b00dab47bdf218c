// The image window: the loaded image, what was found on it, and what is under the pointer.
#pragma once

#include <QMainWindow>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "desktop/fPictureArea.h"
#include "photometry/libStarStatistics.h"
#include "program/mGeneral.h"
#include "program/mImageView.h"
#include "program/mSkyObjects.h"

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

    /// Commands of the program that are to be had here too.
    void ShareCommands(const QList<QAction*>& file, const QList<QAction*>& solve,
                       const QList<QAction*>& windows);
    SkyNames& Names() { return names_; }

    /// The pixels have changed, and nothing is at work on them.
    void ImageChanged();
    /// Black, white or the transfer between them have changed.
    void LevelsChanged();
    /// The user has chosen levels: they count, and not those that the screen takes by itself.
    void ShowLevels();
    /// Something has ended, or begun.
    void ActivityChanged();
    void SetMarks(std::vector<MeasuredMark> marks);

    std::function<void(PixelPoint)> OnStarClicked;
    std::function<void(PixelPoint)> OnStarDoubleClicked;
    /// A place of the sky is to be the approximate centre.
    std::function<void(const SkyPosition&)> OnCentreChosen;
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
    void ShowContextMenu(const PixelPoint& pixel, const QPoint& global);
    void PaintMagnifier(QPainter& painter);
    void ShowViewChange();
    void PaintOverlays(QPainter& painter, const ViewGeometry& view, const QSize& size);
    void PaintStars(OverlayPainter& over) const;
    void PaintNames(OverlayPainter& over) const;
    void ShowReadout(const PixelPoint& pixel);
    void ClearReadout();
    void Flip();
    void CopyView();
    void ExportView();
    // The whole picture with everything that lies over it, at full size (fImageOutput.cpp).
    ViewGeometry WholeView(double ratio) const;
    QImage WholePicture(double ratio);
    void PaintWhole(QPainter& painter, double ratio);
    QByteArray PictureAsPng();
    QByteArray PictureAsPdf();
    void ExportPicture();
    void Print();
    void Write(const std::string& path, const QByteArray& bytes);

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
    QAction* nameSwitch_ = nullptr;
    QAction* stretch_ = nullptr;
    QAction* magnifier_ = nullptr;
    QMenu* fileMenu_ = nullptr;

    Overlays overlays_;
    SkyNames names_;
    std::vector<ObjectOnImage> objects_;
    std::optional<PixelPoint> pointer_;
    SkyGrid skyGrid_;
    bool skyGridFits_ = false;  ///< it was made for the view as it is
    std::vector<MeasuredMark> marks_;
    bool pictureIsOld_ = false;  ///< it is to be built as soon as nothing runs
    bool solutionSeen_ = false;  ///< the overlays of the present solution were switched on
    std::string shownFile_;
};

}  // namespace vestrel
