#include "desktop/fKELInfo.h"

#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QFileInfo>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <cstdio>

#include "console/exitCodes.h"
#include "desktop/fParms.h"
#include "program/mMORA.h"
#include "program/mRecentImages.h"
#include "program/mSettings.h"
#include "program/mSolveWindow.h"
#include "program/mTelescope.h"

namespace vestrel {

SolveWindow::SolveWindow(ProgramState& state)
    : state_(state),
      port_(state, *this),
      imageWindow_(state, port_),
      levelsWindow_(state),
      statsWindow_(state),
      photometryWindow_(state, port_),
      headerWindow_(state),
      quadMessagesWindow_(state) {
    setObjectName("fKELInfo");
    setWindowTitle(ProgramTitle);
    setAcceptDrops(true);
    BuildControls();
    BuildMenus();
    port_.OnDisplayChanged = [this] {
        ShowState();
        imageWindow_.ActivityChanged();
        quadMessagesWindow_.MessagesChanged();
    };
    port_.OnImageChanged = [this] {
        imageWindow_.ImageChanged();
        levelsWindow_.ImageChanged();
        statsWindow_.ImageChanged();
        photometryWindow_.ImageChanged();
        headerWindow_.ImageChanged();
    };
    port_.OnProgress = [this](int percent) { ShowProgressPercent(percent); };
    ConnectWindows();
    countdown_.setInterval(1000);
    connect(&countdown_, &QTimer::timeout, this, [this] { Tick(); });
    clock_.setObjectName("Timer2");
    clock_.setInterval(1000);
    connect(&clock_, &QTimer::timeout, this, [this] { TickClock(); });
    clock_.start();
    openDropped_.setSingleShot(true);
    connect(&openDropped_, &QTimer::timeout, this, [this] { OpenFile(droppedFile_); });
    InitSettings(state_, port_);
    LoadRecentImages(state_);
    ShowInputs();
    ShowQuadCommands();
    UpdateClock(state_);
    ShowState();
}

void SolveWindow::OpenFile(const std::string& path) {
    Run([&] { OpenImageCommand(state_, port_, path); });
}

void SolveWindow::StartUnattended(const std::string& parameters) {
    countdownRow_->show();
    Run([&] {
        const auto outcome = UnattendedCommand(state_, port_, parameters);
        if (!outcome) return;
        exitCode_ = ExitCodeOf(*outcome, state_, port_);
        if (outcome->End == UnattendedEnd::InvalidParameters) {
            RequestClose(state_);
        } else {
            countdown_.start();
        }
    });
}

void SolveWindow::closeEvent(QCloseEvent* event) {
    if (!RequestClose(state_)) {
        event->ignore();
        return;
    }
    countdown_.stop();
    if (!SaveSettings(state_)) std::fputs("vestrel: the settings cannot be written\n", stderr);
    if (!SaveRecentImages(state_)) {
        std::fputs("vestrel: the list of recent images cannot be written\n", stderr);
    }
    imageWindow_.close();
    levelsWindow_.close();
    statsWindow_.close();
    photometryWindow_.close();
    headerWindow_.close();
    quadMessagesWindow_.close();
    helpWindow_.close();
    event->accept();
}

void SolveWindow::changeEvent(QEvent* event) {
    QMainWindow::changeEvent(event);
    if (details_ == nullptr) return;
    if (event->type() == QEvent::PaletteChange) ShowState();
    // The tables may have been made meanwhile.
    if (event->type() == QEvent::ActivationChange && isActiveWindow()) ShowQuadCommands();
}

void SolveWindow::dragEnterEvent(QDragEnterEvent* event) {
    const QList<QUrl> urls = event->mimeData()->urls();
    if (CommandsFor(state_).Start && urls.size() == 1 && urls[0].isLocalFile()) {
        event->acceptProposedAction();
    }
}

void SolveWindow::dropEvent(QDropEvent* event) {
    event->acceptProposedAction();
    droppedFile_ = Utf8(event->mimeData()->urls().constFirst().toLocalFile());
    // Later: the program that the image comes from waits for this event to end.
    openDropped_.start();
}

void SolveWindow::ShowInputs() {
    for (const auto& [input, text] : inputs_) input->setText(QtText(state_.Inputs.*text));
}

void SolveWindow::ShowQuadCommands() {
    const bool have = HaveQuadTables(state_);
    quadsButton_->setVisible(have);
    quadMessagesAction_->setVisible(have);
}

void SolveWindow::ShowTexts() {
    for (const auto& [label, text] : shown_) label->setText(QtText(state_.Display.*text));
}

void SolveWindow::ShowState() {
    const SolveDisplay& display = state_.Display;
    ShowTexts();
    nameLabel_->setText(QtText(ImageNameText(state_)));
    folderLabel_->setText(QtText(ImageFolderText(state_)));
    unitsButton_->setText(QtText(state_.Inputs.Units));
    centrePanel_->setTitle(QtText(display.CentreCaption));
    ShowStatusLine(statusLabel_, display.Status);
    ShowStatusLine(status1Label_, display.Status1);
    ShowProgressPercent(0);
    const QString details = QtText(display.Details);
    if (details_->toPlainText() != details) details_->setPlainText(details);

    const AvailableCommands commands = CommandsFor(state_);
    for (QWidget* widget : startWidgets_) widget->setEnabled(commands.Start);
    for (QAction* action : startActions_) action->setEnabled(commands.Start);
    saveAction_->setEnabled(commands.Save);
    exportAction_->setEnabled(commands.Save);
    worldCoordinatesAction_->setEnabled(commands.WriteWorldCoordinates);
    copyAction_->setEnabled(!display.Details.empty());
    stopButton_->setEnabled(commands.Stop);
    syncButton_->setEnabled(commands.Sync);
}

void SolveWindow::ShowStatusLine(QLabel* label, const StatusLine& line) {
    label->setText(QtText(line.Text));
    label->setVisible(line.Visible);
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText, StatusTextColour(line.Colour, palette()));
    label->setPalette(colours);
}

void SolveWindow::ShowProgressPercent(int percent) {
    // Without a percentage the bar only shows that something goes on.
    busyBar_->setRange(0, percent > 0 ? 100 : 0);
    busyBar_->setValue(percent);
    busyBar_->setVisible(percent > 0 || state_.Display.BusyIndicator);
}

void SolveWindow::FillRecentImages() {
    recentMenu_->clear();
    for (const std::string& path : state_.RecentImages) {
        const QFileInfo file(QtText(path));
        QString text = file.fileName() + "  (" + file.path() + ")";
        QAction* action = recentMenu_->addAction(text.replace('&', "&&"));
        connect(action, &QAction::triggered, this, [this, path] { OpenFile(path); });
    }
    if (recentMenu_->isEmpty()) recentMenu_->addAction("None")->setEnabled(false);
}

void SolveWindow::Run(const std::function<void()>& command) {
    command();
    ShowQuadCommands();
    ShowState();
    if (state_.CloseRequested) close();
}

void SolveWindow::Match() {
    Run([this] { PlateMatchCommand(state_, port_); });
}

void SolveWindow::MatchQuads() {
    if (state_.ImageLoaded) quadMessagesWindow_.show();
    MoraCommand(state_, port_);
    ShowInputs();
}

void SolveWindow::Stop() {
    if (CommandsFor(state_).Stop) StopSearch(state_);
}

void SolveWindow::FocusStop() {
    // A button that is off takes no focus; the command, which begins next, would switch it on.
    stopButton_->setEnabled(true);
    stopButton_->setFocus();
}

void SolveWindow::LoadTelescope() {
    FocusStop();
    if (LoadTelescopeCommand(state_, port_)) ShowInputs();
}

void SolveWindow::SyncTelescope() {
    FocusStop();
    SyncTelescopeCommand(state_, port_);
}

void SolveWindow::ConnectWindows() {
    imageWindow_.OnLevelsChosen = [this] { levelsWindow_.LevelsChanged(); };
    levelsWindow_.OnLevelsChanged = [this] { imageWindow_.LevelsChanged(); };
    // A click is for the windows that are open; a double click opens the statistics.
    imageWindow_.OnStarClicked = [this](PixelPoint pixel) {
        if (statsWindow_.isVisible()) statsWindow_.Measure(pixel);
        if (photometryWindow_.isVisible()) photometryWindow_.Take(pixel);
    };
    imageWindow_.OnStarDoubleClicked = [this](PixelPoint pixel) {
        if (statsWindow_.isVisible()) return;
        statsWindow_.show();
        statsWindow_.Measure(pixel);
    };
    statsWindow_.OnMeasured = [this](const std::optional<StarMeasurement>& star) {
        statsMarks_ = star ? std::vector{MarkOf(*star, {})} : std::vector<MeasuredMark>();
        MarkStars();
    };
    photometryWindow_.OnTaken = [this](const std::vector<StarMeasurement>& stars) {
        photometryMarks_.clear();
        for (const StarMeasurement& star : stars) {
            photometryMarks_.push_back(MarkOf(star, photometryMarks_.empty() ? "1" : "2"));
        }
        MarkStars();
    };
}

void SolveWindow::MarkStars() {
    std::vector<MeasuredMark> marks = statsMarks_;
    marks.insert(marks.end(), photometryMarks_.begin(), photometryMarks_.end());
    imageWindow_.SetMarks(std::move(marks));
}

void SolveWindow::Bring(QWidget& window) {
    window.show();
    window.raise();
    window.activateWindow();
}

void SolveWindow::EditParameters() {
    auto* dialog = new ParametersWindow(
        state_, port_, [this] { ShowHelp(); }, this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
}

void SolveWindow::ShowHelp() {
    Bring(helpWindow_);
}

void SolveWindow::ShowAbout() {
    auto* box = new QMessageBox(QMessageBox::NoIcon, "About Vestrel",
                                QString("<h3>") + ProgramTitle +
                                    "</h3><p>Finds where a photograph of the night sky points.</p>"
                                    "<p>Version " VESTREL_VERSION ". MIT licence.</p>",
                                QMessageBox::Close, this);
    box->setIconPixmap(windowIcon().pixmap(64));
    box->setAttribute(Qt::WA_DeleteOnClose);
    // A solve can be stopped all the same.
    box->setModal(false);
    box->show();
}

void SolveWindow::Tick() {
    const bool ends = CountdownTick(state_);
    ShowState();
    if (ends) close();
}

void SolveWindow::TickClock() {
    UpdateClock(state_);
    ShowTexts();
}

}  // namespace vestrel
