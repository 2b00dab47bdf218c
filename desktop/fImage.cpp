#include "desktop/fImage.h"

#include <QDropEvent>
#include <QLabel>
#include <QPainter>
#include <utility>

#include "astro/libStrings.h"
#include "desktop/libGraphics.h"
#include "desktop/libWindows.h"
#include "display/libReadout.h"
#include "program/mImageData.h"
#include "program/mSolveWindow.h"

namespace vestrel {

namespace {

constexpr double markRadius = 9;

}  // namespace

MeasuredMark MarkOf(const StarMeasurement& star, const QString& name) {
    return {{star.X, star.Y}, star.Radii.Aperture, star.Radii.Inner, star.Radii.Outer, name};
}

ImageWindow::ImageWindow(ProgramState& state, Port& port)
    : state_(state), port_(port), area_(new PictureArea) {
    setObjectName("fImage");
    setWindowTitle("Image");
    setCentralWidget(area_);
    setAcceptDrops(true);
    BuildMenus();
    BuildStatusBar();
    area_->OnPaintOverlays = [this](QPainter& painter) {
        PaintOverlays(painter, area_->View, area_->size());
        if (magnifier_->isChecked()) PaintMagnifier(painter);
    };
    area_->OnContextMenu = [this](PixelPoint pixel, QPoint global) {
        ShowContextMenu(pixel, global);
    };
    area_->OnViewChanged = [this] { ShowViewChange(); };
    area_->OnPointerMoved = [this](PixelPoint pixel) { ShowReadout(pixel); };
    area_->OnPointerLeft = [this] {
        ClearReadout();
        pointer_.reset();
        if (magnifier_->isChecked()) area_->update();
    };
    area_->OnClicked = [this](PixelPoint pixel) {
        if (state_.Running == Activity::None && OnStarClicked) OnStarClicked(pixel);
    };
    area_->OnDoubleClicked = [this](PixelPoint pixel) {
        if (state_.Running == Activity::None && OnStarDoubleClicked) OnStarDoubleClicked(pixel);
    };
    resize(900, 740);
}

void ImageWindow::ImageChanged() {
    const bool solved = state_.Solution.has_value();
    if (solved && !solutionSeen_) {
        for (QAction* overlay : {extracted_, catalog_, matched_}) overlay->setChecked(true);
    }
    solutionSeen_ = solved;
    if (!isVisible()) return;
    size_->setText(state_.ImageLoaded ? QtText(state_.Display.ImageSize)
                                      : QtText(ImageNameText(state_)));
    setWindowTitle(state_.ImageLoaded ? QtText(ImageBaseName(state_)) : "Image");
    ClearReadout();
    const PlateImage& image = state_.Image;
    if (!state_.ImageLoaded) {
        area_->Picture.Clear();
    } else if (area_->Picture.Empty() || shownFile_ != image.FileName ||
               area_->Picture.Levels().front().Width != image.Width ||
               area_->Picture.Levels().front().Height != image.Height) {
        area_->View.SetImage(image);
        shownFile_ = image.FileName;
    }
    if (state_.ImageLoaded && !HasLevels(image)) {
        ChooseFirstLevels(state_);
        if (OnLevelsChosen) OnLevelsChosen();
    }
    overlays_ = OverlaysOf(state_);
    objects_.clear();
    if (overlays_.Map) {
        objects_ = ObjectsOnImage(names_.Objects(), *overlays_.Map, image.Width, image.Height);
    }
    ShowViewChange();
    BuildPicture();
}

void ImageWindow::LevelsChanged() {
    // While something runs, threads may be at work on the pixels.
    pictureIsOld_ = true;
    ActivityChanged();
}

void ImageWindow::ShowLevels() {
    // Which tells of it.
    if (stretch_->isChecked()) return stretch_->setChecked(false);
    LevelsChanged();
}

void ImageWindow::ActivityChanged() {
    if (pictureIsOld_ && isVisible() && state_.Running == Activity::None) BuildPicture();
}

void ImageWindow::BuildPicture() {
    pictureIsOld_ = false;
    if (state_.ImageLoaded) {
        if (stretch_->isChecked()) {
            area_->Picture.BuildForScreen(state_.Image, invert_->isChecked());
        } else {
            area_->Picture.Build(state_.Image, LookupOf(state_, invert_->isChecked()));
        }
    }
    area_->update();
}

void ImageWindow::SetMarks(std::vector<MeasuredMark> marks) {
    marks_ = std::move(marks);
    area_->update();
}

void ImageWindow::ShowViewChange() {
    skyGridFits_ = false;
    zoom_->setText(
        state_.ImageLoaded
            ? QtText(FixedText(100 * area_->View.Scale() * area_->devicePixelRatioF(), 1)) + "%"
            : QString());
}

void ImageWindow::PaintOverlays(QPainter& painter, const ViewGeometry& view, const QSize& size) {
    OverlayPainter over(painter, view, size);
    if (grid_->isChecked() && overlays_.Map) {
        // The window's grid is kept; that of another view is made for it.
        const bool own = &view == &area_->View;
        const bool fits = own && skyGridFits_;
        if (!fits) skyGrid_ = GridOver(overlays_.Map, view.Visible());
        skyGridFits_ = own;
        over.Grid(skyGrid_);
    }
    PaintStars(over);
    if (nameSwitch_->isChecked()) PaintNames(over);
    for (const MeasuredMark& mark : marks_) {
        over.Aperture(mark.Place, mark.Aperture, MeasuredColour, false);
        if (mark.Inner > 0) over.Aperture(mark.Place, mark.Inner, MeasuredColour, true);
        if (mark.Outer > 0) over.Aperture(mark.Place, mark.Outer, MeasuredColour, true);
        over.Label(mark.Place, mark.Aperture * view.Scale(), mark.Name, MeasuredColour,
                   LabelWorth::Measured);
    }
    over.PaintLabels();
    if (compass_->isChecked() && overlays_.Map) over.CompassAndScale(*overlays_.Map);
}

void ImageWindow::PaintNames(OverlayPainter& over) const {
    for (const ObjectOnImage& one : objects_) {
        if (!one.Outline.empty()) over.Outline(one.Outline, NameColour);
        over.Label(one.Place, markRadius, QtText(one.Object->Label()), NameColour,
                   LabelWorth::Name);
    }
}

void ImageWindow::PaintMagnifier(QPainter& painter) {
    if (!pointer_) return;
    constexpr int side = 168;
    constexpr double zoom = 8;
    constexpr int margin = 12;
    const double ratio = area_->devicePixelRatioF();
    ViewGeometry lens;
    lens.SetWindow(side, side);
    lens.SetImage(state_.Image);
    lens.Flip(flipLeftRight_->isChecked(), flipUpDown_->isChecked());
    lens.ZoomTo(zoom, lens.Middle());
    const ScreenPoint at = lens.ScreenOf(*pointer_);
    lens.Pan(lens.Middle().X - at.X, lens.Middle().Y - at.Y);
    const QSize pixels = QSize(side, side) * ratio;
    QImage picture(pixels, QImage::Format_Grayscale8);
    PaintView(area_->Picture, lens, ratio,
              {{picture.bits(), static_cast<std::size_t>(picture.sizeInBytes())},
               picture.width(),
               picture.height(),
               static_cast<std::size_t>(picture.bytesPerLine())});
    // Away from the pointer.
    const ScreenPoint pointer = area_->View.ScreenOf(*pointer_);
    const bool left = pointer.X > area_->width() / 2.0;
    const QRect place(left ? margin : area_->width() - side - margin,
                      area_->height() - side - margin - 36, side, side);
    painter.drawImage(place, picture);
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.setPen(QColor(255, 255, 255, 200));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(place);
    painter.setPen(QColor(255, 80, 80, 200));
    const QPoint middle = place.center();
    for (const QPoint& arm : {QPoint(1, 0), QPoint(-1, 0), QPoint(0, 1), QPoint(0, -1)}) {
        painter.drawLine(middle + 10 * arm, middle + 24 * arm);
    }
}

void ImageWindow::PaintStars(OverlayPainter& over) const {
    // Rings of different sizes, as most stars are of all three kinds.
    constexpr double outerRadius = markRadius + 4;
    const bool labels = magnitudes_->isChecked();
    if (catalog_->isChecked()) {
        for (const OverlayStar& star : overlays_.Catalog) {
            over.Cross(star.Place, markRadius / 2, CatalogColour);
            if (labels) {
                over.Label(star.Place, markRadius, QtText(star.Magnitude), CatalogColour);
            }
        }
    }
    if (extracted_->isChecked()) {
        for (const OverlayStar& star : overlays_.Extracted) {
            over.Circle(star.Place, markRadius, ExtractedColour);
            // A catalog magnitude in the same place says more.
            if (labels && !catalog_->isChecked() && !matched_->isChecked()) {
                over.Label(star.Place, markRadius, QtText(star.Magnitude), ExtractedColour);
            }
        }
    }
    if (matched_->isChecked()) {
        for (const OverlayPair& pair : overlays_.Matched) {
            over.Circle(pair.OnImage.Place, outerRadius, MatchedColour);
            over.Cross(pair.InCatalog, outerRadius, MatchedColour);
            over.Link(pair.OnImage.Place, pair.InCatalog, MatchedColour);
            if (labels && !catalog_->isChecked()) {
                over.Label(pair.OnImage.Place, outerRadius, QtText(pair.OnImage.Magnitude),
                           MatchedColour);
            }
        }
    }
}

void ImageWindow::ShowReadout(const PixelPoint& pixel) {
    // While something runs, threads may be at work on the pixels.
    const bool readable = state_.ImageLoaded && state_.Running == Activity::None;
    const Readout readout = readable ? ReadoutAt(state_.Image, overlays_.Map, pixel) : Readout();
    pixel_->setText(QtText(readout.Pixel));
    count_->setText(QtText(readout.Count));
    sky_->setText(QtText(readout.Sky));
    pointer_ = readable && area_->View.OnImage(pixel) ? std::optional(pixel) : std::nullopt;
    if (magnifier_->isChecked()) area_->update();
}

void ImageWindow::ClearReadout() {
    for (QLabel* label : {pixel_, count_, sky_}) label->clear();
}

void ImageWindow::Flip() {
    area_->View.Flip(flipLeftRight_->isChecked(), flipUpDown_->isChecked());
    ShowViewChange();
    area_->update();
}

void ImageWindow::dragEnterEvent(QDragEnterEvent* event) {
    const bool idle = state_.Running == Activity::None;
    if (idle && !DraggedFiles(event->mimeData()).isEmpty()) AcceptAsCopy(*event);
}

void ImageWindow::dropEvent(QDropEvent* event) {
    AcceptAsCopy(*event);
    if (OnFilesDropped) OnFilesDropped(DraggedFiles(event->mimeData()));
}

void ImageWindow::showEvent(QShowEvent* event) {
    QMainWindow::showEvent(event);
    KeepOnScreen(*this);
    // While a solve works on the pixels they are not to be read; it tells when it has done.
    if (state_.Running == Activity::None) ImageChanged();
}

}  // namespace vestrel
