#include "desktop/fImage.h"

#include <QActionGroup>
#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QDropEvent>
#include <QFontDatabase>
#include <QLabel>
#include <QMenuBar>
#include <QPainter>
#include <QPixmap>
#include <QStatusBar>
#include <QToolBar>
#include <utility>

#include "astro/libStrings.h"
#include "desktop/libGraphics.h"
#include "desktop/libWindows.h"
#include "display/libReadout.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
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
    area_->OnPaintOverlays = [this](QPainter& painter) { PaintOverlays(painter); };
    area_->OnViewChanged = [this] { ShowViewChange(); };
    area_->OnPointerMoved = [this](PixelPoint pixel) { ShowReadout(pixel); };
    area_->OnPointerLeft = [this] { ClearReadout(); };
    area_->OnClicked = [this](PixelPoint pixel) {
        if (state_.Running == Activity::None && OnStarClicked) OnStarClicked(pixel);
    };
    area_->OnDoubleClicked = [this](PixelPoint pixel) {
        if (state_.Running == Activity::None && OnStarDoubleClicked) OnStarDoubleClicked(pixel);
    };
    resize(900, 740);
}

QAction* ImageWindow::AddCommand(QMenu* menu, const char* name, const QString& text,
                                 const QKeySequence& keys, std::function<void()> command) {
    QAction* action = menu->addAction(text);
    action->setObjectName(name);
    action->setShortcut(keys);
    connect(action, &QAction::triggered, this, [command = std::move(command)] { command(); });
    return action;
}

QAction* ImageWindow::AddSwitch(QMenu* menu, const char* name, const QString& text,
                                const QString& shortText, const QKeySequence& keys) {
    QAction* action = menu->addAction(text);
    action->setObjectName(name);
    action->setIconText(shortText);
    action->setShortcut(keys);
    action->setCheckable(true);
    connect(action, &QAction::toggled, area_, [this] { area_->update(); });
    return action;
}

void ImageWindow::BuildMenus() {
    QMenu* file = menuBar()->addMenu("&File");
    AddCommand(file, "mnuExportView", "&Export View as PNG...", QKeySequence("Ctrl+E"),
               [this] { ExportView(); });
    AddCommand(file, "mnuCopyView", "&Copy View", QKeySequence::Copy, [this] { CopyView(); });
    file->addSeparator();
    AddCommand(file, "mnuCloseImage", "C&lose", QKeySequence::Close, [this] { close(); });

    QMenu* view = menuBar()->addMenu("&View");
    QAction* zoomIn =
        AddCommand(view, "mnuZoomIn", "Zoom &In", QKeySequence("+"), [this] { area_->ZoomBy(1); });
    QAction* zoomOut = AddCommand(view, "mnuZoomOut", "Zoom &Out", QKeySequence("-"),
                                  [this] { area_->ZoomBy(-1); });
    QAction* fit =
        AddCommand(view, "mnuFit", "&Fit to Window", QKeySequence("F"), [this] { area_->Fit(); });
    QAction* whole = AddCommand(view, "mnuOneToOne", "&Actual Pixels (1:1)", QKeySequence("1"),
                                [this] { area_->ZoomTo(1 / area_->devicePixelRatioF()); });
    zoomIn->setIconText("Zoom +");
    zoomOut->setIconText("Zoom \u2212");
    fit->setIconText("Fit");
    whole->setIconText("1:1");
    view->addSeparator();
    invert_ = AddSwitch(view, "mnuInvert", "In&vert", "Invert", QKeySequence("I"));
    flipLeftRight_ = AddSwitch(view, "mnuFlipLeftRight", "Flip &Left to Right", "Flip \u2194", {});
    flipUpDown_ = AddSwitch(view, "mnuFlipUpDown", "Flip &Upside Down", "Flip \u2195", {});
    connect(invert_, &QAction::toggled, this, [this] { LevelsChanged(); });
    for (QAction* flip : {flipLeftRight_, flipUpDown_}) {
        connect(flip, &QAction::toggled, this, [this] { Flip(); });
    }

    QMenu* over = menuBar()->addMenu("&Overlays");
    extracted_ =
        AddSwitch(over, "mnuExtracted", "&Extracted Stars", "Extracted", QKeySequence("E"));
    catalog_ = AddSwitch(over, "mnuCatalog", "&Catalog Stars", "Catalog", QKeySequence("C"));
    matched_ = AddSwitch(over, "mnuMatched", "&Matched Stars", "Matched", QKeySequence("M"));
    magnitudes_ = AddSwitch(over, "mnuMagnitudes", "Ma&gnitudes", "Magnitudes", QKeySequence("G"));
    over->addSeparator();
    compass_ = AddSwitch(over, "mnuCompass", "Com&pass and Scale", "Compass", QKeySequence("N"));
    grid_ = AddSwitch(over, "mnuGrid", "&RA/Dec Grid", "Grid", QKeySequence("R"));
    compass_->setChecked(true);

    bar_ = addToolBar("View");
    bar_->setObjectName("tbrView");
    bar_->setMovable(false);
    bar_->setToolButtonStyle(Qt::ToolButtonTextOnly);
    bar_->addActions({zoomIn, zoomOut, fit, whole, invert_});
    bar_->addSeparator();
    bar_->addActions({extracted_, catalog_, matched_, magnitudes_, compass_, grid_});
}

void ImageWindow::BuildStatusBar() {
    const auto add = [this](const char* name, const char* meaning, const QString& widest) {
        auto* label = new QLabel;
        label->setObjectName(name);
        label->setAccessibleName(meaning);
        label->setTextFormat(Qt::PlainText);
        // What is shown changes with every move: it is not to push its neighbours about.
        label->setMinimumWidth(fontMetrics().horizontalAdvance(widest));
        return label;
    };
    pixel_ = add("lblPixel", "Pixel under the pointer", "x 00000.0  y 00000.0  ");
    count_ = add("lblCount", "Count under the pointer", "0000000  ");
    sky_ = add("lblSky", "Position under the pointer", "00h00m00.00s  -00\u00b0 00' 00.0\"  ");
    zoom_ = add("lblZoom", "Zoom", "0000.0%  ");
    size_ = add("lblImageSize", "Size of the image", {});
    for (QLabel* label : {pixel_, count_, sky_}) statusBar()->addWidget(label);
    for (QLabel* label : {zoom_, size_}) statusBar()->addPermanentWidget(label);
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
        area_->View.SetImage(image.Width, image.Height, FirstRowAtTop(image));
        shownFile_ = image.FileName;
    }
    if (state_.ImageLoaded && !HasLevels(image)) {
        ChooseFirstLevels(state_);
        if (OnLevelsChosen) OnLevelsChosen();
    }
    overlays_ = OverlaysOf(state_);
    ShowViewChange();
    BuildPicture();
}

void ImageWindow::LevelsChanged() {
    // While something runs, threads may be at work on the pixels.
    pictureIsOld_ = true;
    ActivityChanged();
}

void ImageWindow::ActivityChanged() {
    if (pictureIsOld_ && isVisible() && state_.Running == Activity::None) BuildPicture();
}

void ImageWindow::BuildPicture() {
    pictureIsOld_ = false;
    if (state_.ImageLoaded) {
        area_->Picture.Build(state_.Image, LookupOf(state_, invert_->isChecked()));
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

void ImageWindow::PaintOverlays(QPainter& painter) {
    OverlayPainter over(painter, area_->View, area_->size());
    if (grid_->isChecked() && overlays_.Map) {
        if (!skyGridFits_) skyGrid_ = GridOver(overlays_.Map, area_->View.Visible());
        skyGridFits_ = true;
        over.Grid(skyGrid_);
    }
    PaintStars(over);
    for (const MeasuredMark& mark : marks_) {
        over.Aperture(mark.Place, mark.Aperture, MeasuredColour, false);
        if (mark.Inner > 0) over.Aperture(mark.Place, mark.Inner, MeasuredColour, true);
        if (mark.Outer > 0) over.Aperture(mark.Place, mark.Outer, MeasuredColour, true);
        over.LowerLabel(mark.Place, mark.Aperture * area_->View.Scale(), mark.Name, MeasuredColour);
    }
    if (compass_->isChecked() && overlays_.Map) over.CompassAndScale(*overlays_.Map);
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
}

void ImageWindow::ClearReadout() {
    for (QLabel* label : {pixel_, count_, sky_}) label->clear();
}

void ImageWindow::Flip() {
    area_->View.Flip(flipLeftRight_->isChecked(), flipUpDown_->isChecked());
    ShowViewChange();
    area_->update();
}

void ImageWindow::CopyView() {
    QApplication::clipboard()->setImage(area_->grab().toImage());
}

void ImageWindow::ExportView() {
    if (!state_.ImageLoaded) return;
    const QImage picture = area_->grab().toImage();
    const auto path =
        port_.AskForFile({"Export View", "PNG Files (*.png)|*.png|All Files (*.*)|*.*", 1,
                          state_.Parameters.LastSaveFolder + "\\*.*", true, ".png"});
    if (!path) return;
    state_.Parameters.LastSaveFolder = FolderOfPath(*path);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    const bool written =
        buffer.open(QIODevice::WriteOnly) && picture.save(&buffer, "PNG") &&
        ReplaceFile(PathFromText(*path),
                    std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
    if (!written) port_.ShowMessage("The view cannot be written to " + *path, DefaultTitle);
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
