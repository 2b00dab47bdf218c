// The image window: the loaded image with its overlays, and the readout under the mouse pointer.
#pragma once

#include <QMainWindow>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "desktop/fAnnotation.h"
#include "desktop/fPictureArea.h"
#include "desktop/libDraggedLayer.h"
#include "desktop/libGraphics.h"
#include "photometry/libStarStatistics.h"
#include "program/mGeneral.h"
#include "program/mImageView.h"
#include "program/mSkyObjects.h"

class QAction;
class QLabel;
class QMenu;
class QPrinter;
class QToolBar;

namespace vestrel {

struct WholePicture;

/// How the counts of an image become its picture.
struct PictureRecipe {
    bool Inverted = false;
    std::optional<GreyLookup> Grey;  ///< nothing: levels that the screen takes by itself
    void Make(PicturePyramid& picture, const PlateImage& image, const std::stop_token& stop) const;
};

MeasuredMark MarkOf(const StarMeasurement& star, const QString& name);

class ImageWindow : public QMainWindow {
 public:
    ImageWindow(ProgramState& state, Port& port);
    ~ImageWindow() override;
    ImageWindow(const ImageWindow&) = delete;
    ImageWindow& operator=(const ImageWindow&) = delete;

    /// Adds commands of the solve window to the menus of this one.
    void ShareCommands(const QList<QAction*>& file, const QList<QAction*>& solve,
                       const QList<QAction*>& windows);
    SkyNames& Names() { return names_; }

    /// Call when the pixels have changed and nothing is working on them.
    void ImageChanged();
    /// Call when black, white or the transfer has changed.
    void LevelsChanged();
    /// Call when the user has chosen levels: they replace the automatic ones.
    void ShowLevels();
    /// Call when a command has begun or ended.
    void ActivityChanged();
    void SetMarks(std::vector<MeasuredMark> marks);
    /// Prints the picture with everything that lies over it, as large as the page allows.
    void PrintOn(QPrinter& printer);

    std::function<void(PixelPoint)> OnStarClicked;
    std::function<void(PixelPoint)> OnStarDoubleClicked;
    /// Called when the user makes a position the approximate centre.
    std::function<void(const SkyPosition&)> OnCentreChosen;
    /// Called when files were dropped on the image.
    std::function<void(const QStringList&)> OnFilesDropped;
    /// How a command is run that lasts; the main window ends the program after it when asked to.
    std::function<void(const std::function<void()>&)> OnRun;
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

    PictureRecipe Recipe();
    /// Begins to make the picture when it is old. That of a large image comes later.
    void BuildPicture();
    void TakePicture(int number, PicturePyramid& picture);
    void StopBuilding();
    void ShowContextMenu(const PixelPoint& pixel, const QPoint& global);
    void PaintMagnifier(QPainter& painter);
    void ShowViewChange();
    OverlaySwitches Switches() const;
    void PaintOverlays(QPainter& painter);
    void ShowReadout(const PixelPoint& pixel);
    void ClearReadout();
    void Flip();
    void CopyView();
    void ExportView();
    // The whole picture with everything that lies over it (fImageOutput.cpp).
    /// Does something with the whole picture, while the windows go on.
    void WithWhole(const std::function<void(const WholePicture&)>& work);
    void ExportPicture();
    void Print();
    void TellWritten(const std::string& path, bool written);

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

    Annotation annotation_;
    DraggedLayer marks_;  ///< those of the annotation
    KeptTexts labels_;
    SkyNames names_;
    std::optional<PixelPoint> pointer_;
    SkyGrid skyGrid_;
    bool skyGridFits_ = false;   ///< it was made for the view as it is
    bool pictureIsOld_ = false;  ///< it is built before it is painted, when nothing runs
    std::jthread builder_;       ///< makes the picture; it reads the pixels
    int build_ = 0;              ///< counts what was begun and what was stopped
    bool solutionSeen_ = false;  ///< the overlays of the present solution were switched on
    std::string shownFile_;
};

}  // namespace vestrel
