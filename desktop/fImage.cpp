#include "desktop/fImage.h"

#include <QDropEvent>
#include <QLabel>
#include <QPainter>
#include <new>
#include <utility>

#include "astro/libStrings.h"
#include "desktop/libWindows.h"
#include "display/libPictureView.h"
#include "display/libReadout.h"
#include "program/mImageData.h"
#include "program/mSolveWindow.h"

namespace vestrel {

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
    area_->OnBeforePaint = [this] { BuildPicture(); };
    area_->OnPaintOverlays = [this](QPainter& painter) {
        PaintOverlays(painter);
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
        area_->Picture.Clear();
        area_->View.SetImage(image);
        shownFile_ = image.FileName;
    }
    annotation_.Stars = OverlaysOf(state_);
    annotation_.Objects.clear();
    if (annotation_.Stars.Map) {
        annotation_.Objects =
            ObjectsOnImage(names_.Objects(), *annotation_.Stars.Map, image.Width, image.Height);
    }
    marks_.Forget();
    ShowViewChange();
    LevelsChanged();
}

void ImageWindow::LevelsChanged() {
    pictureIsOld_ = true;
    area_->update();
}

void ImageWindow::ShowLevels() {
    // The switch then calls this again through its signal.
    if (stretch_->isChecked()) return stretch_->setChecked(false);
    LevelsChanged();
}

void ImageWindow::ActivityChanged() {
    if (state_.Running != Activity::None) StopBuilding();
    if (pictureIsOld_) area_->update();
}

ImageWindow::~ImageWindow() {
    StopBuilding();
}

PictureRecipe ImageWindow::Recipe() {
    const bool inverted = invert_->isChecked();
    if (stretch_->isChecked()) return {inverted, std::nullopt};
    if (!HasLevels(state_.Image)) {
        ChooseFirstLevels(state_);
        if (OnLevelsChosen) OnLevelsChosen();
    }
    return {inverted, LookupOf(state_, inverted)};
}

void PictureRecipe::Make(PicturePyramid& picture, const PlateImage& image,
                         const std::stop_token& stop) const {
    if (Grey) return picture.Build(image, *Grey, stop);
    picture.BuildForScreen(image, Inverted, stop);
}

void ImageWindow::BuildPicture() {
    // While something runs, threads may be at work on the pixels.
    const bool busy = state_.Running != Activity::None || builder_.joinable();
    if (!pictureIsOld_ || busy) return;
    pictureIsOld_ = false;
    if (!state_.ImageLoaded) return;
    const PlateImage& image = state_.Image;
    // One that is small is there sooner than a thread.
    constexpr std::int64_t small = 3000000;
    if (std::int64_t{image.Width} * image.Height < small) {
        return Recipe().Make(area_->Picture, image, {});
    }
    builder_ = std::jthread(
        [this, &image, recipe = Recipe(), number = ++build_](const std::stop_token& stop) {
            const auto picture = std::make_shared<PicturePyramid>();
            try {
                recipe.Make(*picture, image, stop);
            } catch (const std::bad_alloc&) {
                picture->Clear();
            }
            QMetaObject::invokeMethod(this, [=, this] { TakePicture(number, *picture); });
        });
}

void ImageWindow::TakePicture(int number, PicturePyramid& picture) {
    // One that was stopped may have come all the same.
    if (number != build_) return;
    builder_.join();
    builder_ = {};
    std::swap(area_->Picture, picture);
    area_->update();
}

void ImageWindow::StopBuilding() {
    if (!builder_.joinable()) return;
    builder_.request_stop();
    builder_.join();
    builder_ = {};
    ++build_;
    pictureIsOld_ = true;
}

void ImageWindow::SetMarks(std::vector<MeasuredMark> marks) {
    annotation_.Marks = std::move(marks);
    marks_.Forget();
    area_->update();
}

void ImageWindow::ShowViewChange() {
    skyGridFits_ = false;
    zoom_->setText(
        state_.ImageLoaded
            ? QtText(FixedText(100 * area_->View.Scale() * area_->devicePixelRatioF(), 1)) + "%"
            : QString());
}

OverlaySwitches ImageWindow::Switches() const {
    return {extracted_->isChecked(),  catalog_->isChecked(), matched_->isChecked(),
            magnitudes_->isChecked(), compass_->isChecked(), grid_->isChecked(),
            nameSwitch_->isChecked()};
}

void ImageWindow::PaintOverlays(QPainter& painter) {
    const OverlaySwitches shows = Switches();
    const bool redOnly = IsRedOnly(palette());
    if (shows != annotation_.Shows || redOnly != annotation_.RedOnly) marks_.Forget();
    annotation_.Shows = shows;
    annotation_.RedOnly = redOnly;
    const ViewGeometry& view = area_->View;
    const QSize size = area_->size();
    if (shows.Grid && !skyGridFits_) {
        skyGrid_ = GridOver(annotation_.Stars.Map, view.Visible());
        skyGridFits_ = true;
    }
    annotation_.PaintGrid(painter, view, size, skyGrid_);
    marks_.Show(painter, view, size, [&](QPainter& over, const QRectF& part) {
        annotation_.PaintMarks(over, view, size, part);
    });
    annotation_.PaintLabels(painter, view, size, skyGrid_, &labels_);
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
    // The magnifier is on the side away from the pointer.
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

void ImageWindow::ShowReadout(const PixelPoint& pixel) {
    // While something runs, threads may be at work on the pixels.
    const bool readable = state_.ImageLoaded && state_.Running == Activity::None;
    const Readout readout =
        readable ? ReadoutAt(state_.Image, annotation_.Stars.Map, pixel) : Readout();
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
    // While a solve works on the pixels they must not be read; `ImageChanged` is called when it is
    // done. Back from an icon nothing has changed.
    if (state_.Running == Activity::None && !event->spontaneous()) ImageChanged();
}

}  // namespace vestrel
