#include "desktop/fKELInfo.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QFileInfo>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QTextEdit>
#include <cstdio>

#include "console/exitCodes.h"
#include "desktop/fCatalog.h"
#include "desktop/fParms.h"
#include "program/mJustSolve.h"
#include "program/mMORA.h"
#include "program/mPreferences.h"
#include "program/mRecentImages.h"
#include "program/mSettings.h"
#include "program/mSolveWindow.h"
#include "program/mTelescope.h"

namespace vestrel {

SolveWindow::SolveWindow(ProgramState& state, bool unattended)
    : state_(state),
      port_(state, *this),
      imageWindow_(state, port_),
      levelsWindow_(state, port_, &imageWindow_),
      statsWindow_(state, &imageWindow_),
      photometryWindow_(state, port_, &imageWindow_),
      residualsWindow_(state, &imageWindow_),
      headerWindow_(state),
      solutionsWindow_(state, port_),
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
        if (settingsWait_ && state_.Running == Activity::None) {
            // The command that ends may still use them.
            QTimer::singleShot(0, this, [this] { ApplySettings(); });
        }
    };
    port_.OnImageChanged = [this] {
        imageWindow_.ImageChanged();
        // Each of them looks at all pixels. At the start of a solve a stop would be forgotten.
        const bool mayYield = state_.Running == Activity::Opening;
        if (mayYield) port_.Yield();
        levelsWindow_.ImageChanged();
        if (mayYield) port_.Yield();
        statsWindow_.ImageChanged();
        photometryWindow_.ImageChanged();
        headerWindow_.ImageChanged();
        residualsWindow_.SolutionChanged();
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
    connect(&openDropped_, &QTimer::timeout, this, [this] { OpenDropped(); });
    // A host waits for the result; nobody may be there to read what is wrong with the settings.
    port_.Waits = !unattended;
    InitSettings(state_, port_);
    port_.Waits = true;
    LoadRecentImages(state_);
    LoadPreferences(state_);
    RestorePlaces();
    usualCatalog_ = state_.Catalog.Folder;
    ApplySettings();
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
    // After an unattended run nobody may be there to answer a message.
    const bool watched = !countdown_.isActive();
    countdown_.stop();
    if (!SaveSession() && watched) {
        Complain("The settings cannot be written. What was changed in this session is lost.");
    }
    for (QWidget* window : Windows()) {
        if (window != this) window->close();
    }
    event->accept();
}

bool SolveWindow::SaveSession() {
    bool saved = true;
    const auto check = [&saved](bool written, const char* what) {
        if (!written) std::fprintf(stderr, "vestrel: %s cannot be written\n", what);
        saved = saved && written;
    };
    check(SaveSettings(state_), "the settings");
    check(SaveRecentImages(state_), "the list of recent images");
    KeepPlaces();
    check(SavePreferences(state_), "the preferences");
    return saved;
}

void SolveWindow::EndNow() {
    SaveSession();
    if (catalogWindow_ != nullptr && catalogWindow_->IsBuilding()) catalogWindow_->Stop();
    RequestClose(state_);
    QApplication::exit();  // from open dialogs too
}

void SolveWindow::showEvent(QShowEvent* event) {
    QMainWindow::showEvent(event);
    KeepOnScreen(*this);
}

void SolveWindow::changeEvent(QEvent* event) {
    QMainWindow::changeEvent(event);
    if (details_ == nullptr) return;
    if (event->type() == QEvent::PaletteChange) ShowState();
    // The quad tables may have been made meanwhile.
    if (event->type() == QEvent::ActivationChange && isActiveWindow()) ShowQuadCommands();
}

void SolveWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (CommandsFor(state_).Start && !DraggedFiles(event->mimeData()).isEmpty()) {
        AcceptAsCopy(*event);
    }
}

void SolveWindow::dropEvent(QDropEvent* event) {
    AcceptAsCopy(*event);
    Drop(DraggedFiles(event->mimeData()));
}

void SolveWindow::Drop(const QStringList& files) {
    droppedFiles_ = files;
    // Opens the file later, because the program it is dragged from waits for this event to end.
    openDropped_.start();
}

void SolveWindow::OpenDropped() {
    if (droppedFiles_.isEmpty()) return;
    OpenFile(Utf8(droppedFiles_.constFirst()));
    if (droppedFiles_.size() > 1 && state_.ImageLoaded) {
        state_.Display.Status = {"Opened the first of " + std::to_string(droppedFiles_.size()) +
                                     " files: one image is opened at a time",
                                 StatusColour::Black, true};
        ShowState();
    }
}

void SolveWindow::Complain(const std::string& text) {
    port_.ShowMessage(text, ProgramTitle);
}

std::vector<QWidget*> SolveWindow::Windows() {
    return {
        this,           &imageWindow_,     &levelsWindow_,    &statsWindow_, &photometryWindow_,
        &headerWindow_, &residualsWindow_, &solutionsWindow_, &helpWindow_,  &quadMessagesWindow_};
}

void SolveWindow::RestorePlaces() {
    for (QWidget* window : Windows()) {
        const std::string place = PreferenceOf(state_, "window." + Utf8(window->objectName()));
        if (!place.empty()) window->restoreGeometry(QByteArray::fromHex(place.c_str()));
    }
}

void SolveWindow::KeepPlaces() {
    for (QWidget* window : Windows()) {
        // A window that was never shown has no place yet.
        if (!window->testAttribute(Qt::WA_WState_Created)) continue;
        SetPreference(state_, "window." + Utf8(window->objectName()),
                      window->saveGeometry().toHex().toStdString());
    }
}

void SolveWindow::ShowInputs() {
    for (const auto& [input, text] : inputs_) {
        const QString shown = QtText(state_.Inputs.*text);
        // Setting a text takes away what can be undone.
        if (input->text() != shown) input->setText(shown);
    }
}

void SolveWindow::ShowQuadCommands() {
    const bool have = HaveQuadTables(state_);
    quadsButton_->setVisible(have);
    quadMessagesAction_->setVisible(have);
}

void SolveWindow::ShowTexts() {
    // Those of an earlier search stay while a new one runs, and when it finds nothing.
    const bool stands = state_.Solution || state_.QuadMatch.Code == SolveCode::Solved;
    using Display = SolveDisplay;
    for (const auto& [label, text] : shown_) {
        label->setText(QtText(state_.Display.*text));
        for (const auto result :
             {&Display::PlateSize, &Display::Scale, &Display::Stretch, &Display::Skew,
              &Display::Angle, &Display::Matched, &Display::RmsDifference}) {
            if (text == result) label->setEnabled(stands);
        }
    }
    ShowStage();
}

void SolveWindow::ShowStage() {
    const QString stage = QtText(StageText(state_));
    stageLabel_->setText(stage);
    stageLabel_->setVisible(!stage.isEmpty());
}

void SolveWindow::ShowState() {
    const SolveDisplay& display = state_.Display;
    ShowTexts();
    nameLabel_->setText(QtText(ImageNameText(state_)));
    nameLabel_->setToolTip(state_.ImageLoaded ? QtText(state_.Image.FileName) : QString());
    folderLabel_->setText(QtText(ImageFolderText(state_)));
    unitsButton_->setText(QtText(state_.Inputs.Units));
    centrePanel_->setTitle(QtText(display.CentreCaption));
    ShowStatusLine(statusLabel_, display.Status);
    ShowStatusLine(status1Label_, display.Status1);
    ShowTrust();
    ShowProgressPercent(0);
    const QString details = QtText(display.Details);
    if (details_->toPlainText() != details) ShowReport(*details_, details);

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

void SolveWindow::ShowTrust() {
    const Trust trust = state_.Running == Activity::None ? TrustOf(state_) : Trust();
    QString why = QtText(trust.Why);
    const bool settles = !trust.Settle.empty();
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText, TrustColour(trust.Level, palette()));
    trustLabel_->setPalette(colours);
    trustLabel_->setText(WordOf(trust.Level));
    if (settles) why += ".\n" + QtText(trust.Settle) + ".";
    const bool offers = state_.Running == Activity::None && state_.Display.OffersJustSolve;
    if (offers) why = "Nothing was found from these starting values.";
    const QString cause = QtText(state_.Display.Cause);
    if (state_.Running == Activity::None && !cause.isEmpty()) why = cause;
    trustWhyLabel_->setText(why);
    trustLabel_->setVisible(trust.Level != TrustLevel::None);
    trustWhyLabel_->setVisible(!why.isEmpty());
    offerButton_->setVisible(offers);
    residualsButton_->setVisible(state_.Solution.has_value());
}

void SolveWindow::ShowStatusLine(QLabel* label, const StatusLine& line) {
    label->setText(QtText(line.Text));
    label->setVisible(line.Visible);
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText, StatusTextColour(line.Colour, palette()));
    label->setPalette(colours);
}

void SolveWindow::ShowProgressPercent(int percent) {
    // Without a percentage the bar only shows that something is running.
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
    const QPointer<QWidget> focus = focusWidget();
    command();
    ShowInputs();
    ShowQuadCommands();
    ShowState();
    NoteSolution();
    // A control that is disabled meanwhile loses the focus to the next one, so it is given back.
    const bool fault = focusFault_ != nullptr;
    QWidget* back = fault ? focusFault_ : focus.data();
    focusFault_ = nullptr;
    if (back != nullptr && back->isEnabled() && back->isVisible()) back->setFocus();
    if (fault) static_cast<QLineEdit*>(back)->selectAll();
    if (state_.CloseRequested) close();
}

}  // namespace vestrel
