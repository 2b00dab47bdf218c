// The commands of the solve window, and its connections to the other windows.
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QWhatsThis>

#include "desktop/fCatalog.h"
#include "desktop/fKELInfo.h"
#include "desktop/fParms.h"
#include "desktop/fSettings.h"
#include "platform/libPlatform.h"
#include "program/mJustSolve.h"
#include "program/mPreferences.h"
#include "program/mSolveWindow.h"
#include "program/mTelescope.h"

namespace vestrel {

void SolveWindow::Match() {
    const bool asked = state_.ImageLoaded && CommandsFor(state_).Start;
    if (asked) CompleteInputs();
    PlateMatchCommand(state_, port_);
    FocusFault(asked);
}

void SolveWindow::JustSolve() {
    CompleteInputs();
    JustSolveCommand(state_, port_);
}

void SolveWindow::CompleteInputs() {
    if (CompleteCentre(state_.Inputs, imageWindow_.Names())) ShowInputs();
}

void SolveWindow::FocusFault(bool asked) {
    const auto fault = FaultOfInputs(state_.Inputs);
    if (!asked || !fault) return;
    for (const auto& [input, text] : inputs_) {
        if (text == fault->Box) focusFault_ = input;
    }
}

void SolveWindow::MatchQuads() {
    const bool asked = state_.ImageLoaded && CommandsFor(state_).Start;
    if (asked) CompleteInputs();
    if (asked && !FaultOfInputs(state_.Inputs)) quadMessagesWindow_.show();
    MoraCommand(state_, port_);
    FocusFault(asked);
}

void SolveWindow::SaveAs() {
    const FileStamp before = state_.Image.Stamp;
    SaveImageCommand(state_, port_);
    solutionsWindow_.FileSaved(state_.Image, before);
}

void SolveWindow::Stop() {
    if (CommandsFor(state_).Stop) StopSearch(state_);
}

void SolveWindow::FocusStop() {
    // A disabled button takes no focus, and the command that enables it begins only after this.
    stopButton_->setEnabled(true);
    stopButton_->setFocus();
}

void SolveWindow::LoadTelescope() {
    FocusStop();
    LoadTelescopeCommand(state_, port_);
}

void SolveWindow::SyncTelescope() {
    FocusStop();
    SyncTelescopeCommand(state_, port_);
}

void SolveWindow::ConnectWindows() {
    solutionsWindow_.OnRestore = [this](const SolvedPicture& picture) {
        Run([&] {
            RestoreSolution(state_, port_, picture);
            noted_ = state_.SolutionCount;
        });
    };
    imageWindow_.OnRun = [this](const std::function<void()>& command) { Run(command); };
    imageWindow_.OnLevelsChosen = [this] { levelsWindow_.LevelsChanged(); };
    levelsWindow_.OnLevelsChanged = [this] { imageWindow_.ShowLevels(); };
    imageWindow_.OnCentreChosen = [this](const SkyPosition& centre) {
        SetCentre(state_.Inputs, centre);
        ShowInputs();
    };
    imageWindow_.OnFilesDropped = [this](const QStringList& files) { Drop(files); };
    // A click goes to the open windows; a double click opens the statistics.
    imageWindow_.OnStarClicked = [this](PixelPoint pixel) {
        if (statsWindow_.isVisible()) statsWindow_.Measure(pixel);
        if (photometryWindow_.isVisible()) photometryWindow_.Take(pixel);
    };
    imageWindow_.OnStarDoubleClicked = [this](PixelPoint pixel) {
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
    dialog->addActions(helpActions_);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
}

void SolveWindow::NoteSolution() {
    const bool isNew = state_.Solution && noted_ != state_.SolutionCount;
    if (!isNew || state_.Running != Activity::None) return;
    noted_ = state_.SolutionCount;
    solutionsWindow_.Add(PictureOf(state_));
}

void SolveWindow::ApplySettings() {
    ApplyTheme(PreferenceOf(state_, "theme"));
    const std::filesystem::path folder = CatalogFolderOf(state_, usualCatalog_);
    settingsWait_ = state_.Running != Activity::None;
    if (state_.Catalog.Folder != folder && !settingsWait_) {
        state_.Catalog = {};
        state_.Catalog.Folder = folder;
        state_.Quads = {};
    }
    const std::string telescope = PreferenceOf(state_, "telescope");
    if (telescope != setTelescope_ && TelescopeAt && !settingsWait_) {
        setTelescope_ = telescope;
        state_.Telescope.reset();
        state_.TelescopeConnected = false;
        state_.CreateTelescope = [at = TelescopeAt, telescope] { return at(telescope); };
    }
    ShowQuadCommands();
}

void SolveWindow::EditSettings() {
    auto* dialog = new SettingsWindow(state_, port_, this);
    dialog->addActions(helpActions_);
    dialog->OnChanged = [this] { ApplySettings(); };
    dialog->OnBuildCatalog = [this] { BuildCatalog(); };
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
}

void SolveWindow::BuildCatalog() {
    if (catalogWindow_ == nullptr) {
        // The window is kept when it is closed, as a build may be running.
        catalogWindow_ = new CatalogWindow(state_, port_, this);
        catalogWindow_->OnCatalogChanged = [this] { ShowQuadCommands(); };
    }
    catalogWindow_->Refresh();
    Bring(*catalogWindow_);
}

void SolveWindow::ShowHelp() {
    const QWidget* control = QApplication::focusWidget();
    if (control == nullptr) control = QApplication::activeWindow();
    Bring(helpWindow_);
    helpWindow_.ShowTopicOf(control);
}

void SolveWindow::ExplainPointedAt() {
    for (QWidget* window : QApplication::topLevelWidgets()) {
        QList<QWidget*> controls = window->findChildren<QWidget*>();
        controls << window;
        for (QWidget* control : controls) control->setWhatsThis(HelpOn(control->objectName()));
    }
    QWhatsThis::enterWhatsThisMode();
}

void SolveWindow::ShowAbout() {
    auto* box =
        new QMessageBox(QMessageBox::NoIcon, "About Vestrel",
                        "<h3>Vestrel</h3><p>Finds where a photograph of the night sky points.</p>"
                        "<p>Version " VESTREL_VERSION ". MIT licence.</p>",
                        QMessageBox::Close, this);
    box->setIconPixmap(windowIcon().pixmap(64));
    box->setAttribute(Qt::WA_DeleteOnClose);
    // Not modal, so that a solve can still be stopped.
    box->setModal(false);
    box->show();
}

void SolveWindow::Tick() {
    // Whoever has a dialog open is at work.
    if (QApplication::activeModalWidget() != nullptr) return;
    const bool ends = CountdownTick(state_);
    ShowState();
    if (ends) close();
}

void SolveWindow::TickClock() {
    UpdateClock(state_);
    // The other texts may be those of a search that is not to be seen.
    for (const auto& [label, text] : shown_) {
        if (text == &SolveDisplay::Clock) label->setText(QtText(state_.Display.Clock));
    }
    ShowStage();
}

}  // namespace vestrel
