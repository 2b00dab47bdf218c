// The commands of the image window.
#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QMenuBar>
#include <QStatusBar>
#include <QToolBar>
#include <QToolTip>
#include <utility>

#include "desktop/fImage.h"
#include "desktop/libWindows.h"
#include "display/libReadout.h"

namespace vestrel {

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
    QMenu* file = fileMenu_ = menuBar()->addMenu("&File");
    AddCommand(file, "mnuExportView", "&Export View as PNG...", QKeySequence("Ctrl+E"),
               [this] { ExportView(); });
    AddCommand(file, "mnuCopyView", "&Copy View", QKeySequence::Copy, [this] { CopyView(); });
    AddCommand(file, "mnuExportPicture", "Export Whole &Picture...", QKeySequence("Ctrl+Shift+E"),
               [this] { ExportPicture(); });
    AddCommand(file, "mnuPrint", "P&rint...", QKeySequence::Print, [this] { Print(); });
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
    stretch_ = AddSwitch(view, "mnuStretch", "Auto &Stretch", "Stretch", QKeySequence("S"));
    stretch_->setToolTip("Levels that show the stars at this zoom");
    stretch_->setChecked(true);
    magnifier_ = AddSwitch(view, "mnuMagnifier", "&Magnifier", "Magnifier", QKeySequence("Z"));
    connect(stretch_, &QAction::toggled, this, [this] { LevelsChanged(); });
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
    nameSwitch_ = AddSwitch(over, "mnuNames", "Na&mes of Objects", "Names", QKeySequence("O"));
    compass_->setChecked(true);
    nameSwitch_->setChecked(true);

    bar_ = addToolBar("View");
    bar_->setObjectName("tbrView");
    bar_->setMovable(false);
    bar_->setToolButtonStyle(Qt::ToolButtonTextOnly);
    // In dark colours the style hardly shows what is on.
    bar_->setStyleSheet(
        "QToolButton { border: 1px solid transparent; border-radius: 3px; padding: 3px 2px; }"
        "QToolButton:checked { border-color: palette(window-text); background: palette(base); }"
        "QToolButton:hover, QToolButton:focus { border-color: palette(highlight); }");
    bar_->addActions({zoomIn, zoomOut, fit, whole, invert_, stretch_, magnifier_});
    bar_->addSeparator();
    bar_->addActions({extracted_, catalog_, matched_, magnitudes_, compass_, grid_, nameSwitch_});
}

void ImageWindow::BuildStatusBar() {
    const auto add = [this](const char* name, const char* meaning, const QString& widest) {
        auto* label = new QLabel;
        label->setObjectName(name);
        label->setAccessibleName(meaning);
        label->setTextFormat(Qt::PlainText);
        // The text changes with every move of the pointer and must not move its neighbours.
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

void ImageWindow::ShareCommands(const QList<QAction*>& file, const QList<QAction*>& solve,
                                const QList<QAction*>& windows) {
    QAction* before = fileMenu_->actions().constFirst();
    for (QAction* action : file) fileMenu_->insertAction(before, action);
    fileMenu_->insertSeparator(before);
    const auto add = [this](const QString& title, const QList<QAction*>& actions) {
        QMenu* menu = menuBar()->addMenu(title);
        for (QAction* action : actions) menu->addAction(action);
    };
    add("&Solve", solve);
    add("&Windows", windows);
}

void ImageWindow::ShowContextMenu(const PixelPoint& pixel, const QPoint& global) {
    const auto sky = annotation_.Stars.Map ? annotation_.Stars.Map->SkyOf(pixel) : std::nullopt;
    const bool idle = state_.Running == Activity::None;
    auto* menu = new QMenu(this);
    menu->setObjectName("mnuPlace");
    menu->setAttribute(Qt::WA_DeleteOnClose);
    const auto add = [&](const char* name, const QString& text, bool enabled,
                         std::function<void()> command) {
        AddCommand(menu, name, text, {}, std::move(command))->setEnabled(enabled);
    };
    add("mnuCopyPlace", "&Copy Coordinates", sky.has_value(),
        [sky] { QApplication::clipboard()->setText(QtText(SkyText(*sky))); });
    add("mnuSetCentre", "&Set as Approximate Centre", sky && idle && OnCentreChosen,
        [this, sky] { OnCentreChosen(*sky); });
    add("mnuMeasure", "&Measure This Star", idle && OnStarDoubleClicked, [this, pixel] {
        if (OnStarDoubleClicked) OnStarDoubleClicked(pixel);
    });
    add("mnuIdentify", "&Identify", state_.ImageLoaded, [this, pixel, global] {
        constexpr double reach = 12;
        const QString text =
            QtText(IdentityAt(state_, annotation_.Objects, pixel, reach / area_->View.Scale()));
        constexpr int milliseconds = 20000;
        statusBar()->showMessage(QString(text).replace('\n', "   "), milliseconds);
        QToolTip::showText(global, "<p style='white-space:pre'>" + text.toHtmlEscaped() + "</p>",
                           area_, {}, milliseconds);
    });
    menu->popup(global);
}

}  // namespace vestrel
