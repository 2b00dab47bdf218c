// The solve window: the starting values of a solve, its commands and its results.
#pragma once

#include <QMainWindow>
#include <QTimer>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "console/exitCodes.h"
#include "desktop/fFITSHeader.h"
#include "desktop/fHelp.h"
#include "desktop/fHistogram.h"
#include "desktop/fImage.h"
#include "desktop/fMORA.h"
#include "desktop/fRelPhot.h"
#include "desktop/fResiduals.h"
#include "desktop/fSolutions.h"
#include "desktop/fStats.h"
#include "desktop/libWindows.h"
#include "program/mGeneral.h"

class QAction;
class QBoxLayout;
class QCheckBox;
class QFormLayout;
class QGroupBox;
class QLabel;
class QLayout;
class QLineEdit;
class QMenu;
class QTextEdit;
class QProgressBar;
class QPushButton;

namespace vestrel {

class CatalogWindow;

/// Shows the program state and passes on the user's commands. Tests and the help find controls by
/// their object names.
class SolveWindow : public QMainWindow {
 public:
    /// Loads the settings.
    /// @param unattended what is wrong with them is shown without waiting for an answer
    explicit SolveWindow(ProgramState& state, bool unattended = false);

    /// Opens an image as if the user had chosen it.
    void OpenFile(const std::string& path);
    /// Shows the user a message about what cannot be done.
    void Complain(const std::string& text);
    /// Solves by a parameter string, then counts down and closes the program.
    void StartUnattended(const std::string& parameters);
    /// Creates the driver for a telescope at an address, when the preferences have one.
    std::function<std::unique_ptr<TelescopeDriver>(const std::string&)> TelescopeAt;
    /// Applies catalog, telescope and theme from the preferences.
    void ApplySettings();
    /// Saves the session and ends the program without a question. What runs is stopped.
    void EndNow();
    /// The exit code with which the program ends.
    ExitCode EndsWith() const { return exitCode_; }
    /// Sets the tick of the countdown, which is one second by default.
    void SetCountdownInterval(int milliseconds) { countdown_.setInterval(milliseconds); }

 protected:
    void closeEvent(QCloseEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

 private:
    // The layout (fKELInfoLayout.cpp).
    void BuildControls();
    void BuildMenus();
    QGroupBox* BuildImageName();
    QGroupBox* BuildCentreInputs();
    QGroupBox* BuildSizeInputs();
    QGroupBox* BuildSearchLimit();
    QLayout* BuildCommands();
    QGroupBox* BuildCentre();
    QGroupBox* BuildShownValues(
        const QString& title,
        const std::vector<std::tuple<const char*, const char*, std::string SolveDisplay::*>>& rows);
    QGroupBox* BuildStatus();
    QLayout* BuildTrust();
    void ShowTrust();
    QWidget* BuildCountdown();
    QLineEdit* AddInput(const char* name, const QString& accessibleName,
                        std::string SolveInputs::*text);
    QLabel* AddShown(const char* name, std::string SolveDisplay::*text);
    QPushButton* AddButton(const char* name, const QString& text, const QString& toolTip,
                           std::function<void()> command);
    QAction* AddAction(QMenu* menu, const QString& text, const QKeySequence& keys,
                       std::function<void()> command);

    // Showing the state.
    void ShowState();
    void ShowTexts();
    void ShowStage();
    void ShowInputs();
    /// Enables MORA when there are quad tables.
    void ShowQuadCommands();
    void ShowStatusLine(QLabel* label, const StatusLine& line);
    void ShowProgressPercent(int percent);
    void FillRecentImages();
    /// All windows that keep their place between runs.
    std::vector<QWidget*> Windows();
    void RestorePlaces();
    void KeepPlaces();
    /// False when a file cannot be written.
    bool SaveSession();

    // The commands.
    /// Runs a command, and closes the window when that was requested meanwhile.
    void Run(const std::function<void()>& command);
    void Match();
    void MatchQuads();
    void JustSolve();
    /// Gives the keyboard focus to the input that a search found invalid.
    void FocusFault(bool asked);
    void Drop(const QStringList& files);
    /// Completes both centre inputs when one holds a whole position or a name.
    void CompleteInputs();
    void OpenDropped();
    void SaveAs();
    void Stop();
    void LoadTelescope();
    void SyncTelescope();
    /// Gives the focus to Stop Search while the program waits for the telescope.
    void FocusStop();
    void ConnectWindows();
    void MarkStars();
    /// Opens a window, or brings it to the front.
    static void Bring(QWidget& window);
    void EditParameters();
    /// Opens the help at the control that has the keyboard.
    void ShowHelp();
    /// Lets the user click on a control, and tells what it is.
    void ExplainPointedAt();
    void EditSettings();
    void BuildCatalog();
    /// Adds a new solution to the table of solutions.
    void NoteSolution();
    void ShowAbout();
    void Tick();
    void TickClock();

    ProgramState& state_;
    WindowPort port_;
    QTimer countdown_;
    QTimer clock_;
    QTimer openDropped_;
    QStringList droppedFiles_;
    ExitCode exitCode_ = ExitCode::Solved;

    std::vector<std::pair<QLabel*, std::string SolveDisplay::*>> shown_;
    std::vector<std::pair<QLineEdit*, std::string SolveInputs::*>> inputs_;
    QLineEdit* focusFault_ = nullptr;  ///< gets the keyboard focus when the command has ended
    // Controls that are enabled only while nothing runs; the members after them depend on other
    // states.
    std::vector<QWidget*> startWidgets_;
    std::vector<QAction*> startActions_;
    QAction* saveAction_ = nullptr;
    QAction* exportAction_ = nullptr;
    QAction* worldCoordinatesAction_ = nullptr;
    QAction* copyAction_ = nullptr;
    QList<QAction*> helpActions_;  ///< for the dialogs that block this window
    QMenu* recentMenu_ = nullptr;
    QPushButton* stopButton_ = nullptr;
    QPushButton* quadsButton_ = nullptr;
    QAction* quadMessagesAction_ = nullptr;
    QPushButton* syncButton_ = nullptr;
    QPushButton* unitsButton_ = nullptr;
    QGroupBox* centrePanel_ = nullptr;
    QLabel* nameLabel_ = nullptr;
    QLabel* folderLabel_ = nullptr;
    QLabel* statusLabel_ = nullptr;
    QLabel* status1Label_ = nullptr;
    QLabel* stageLabel_ = nullptr;
    QLabel* trustLabel_ = nullptr;
    WholeLabel* trustWhyLabel_ = nullptr;
    QPushButton* offerButton_ = nullptr;
    QPushButton* residualsButton_ = nullptr;
    QProgressBar* busyBar_ = nullptr;
    QTextEdit* details_ = nullptr;
    QWidget* countdownRow_ = nullptr;
    CatalogWindow* catalogWindow_ = nullptr;  ///< created when first opened; a child of this
    std::filesystem::path usualCatalog_;      ///< the catalog folder the folder when the
                                              ///< preferences name none
    std::string setTelescope_;
    std::size_t noted_ = 0;      ///< the count of solutions when the last came into the table
    bool settingsWait_ = false;  ///< settings were changed while something ran
    std::vector<MeasuredMark> statsMarks_;
    std::vector<MeasuredMark> photometryMarks_;

    ImageWindow imageWindow_;
    LevelsWindow levelsWindow_;
    StatsWindow statsWindow_;
    RelativePhotometryWindow photometryWindow_;
    ResidualsWindow residualsWindow_;
    HeaderWindow headerWindow_;
    SolutionsWindow solutionsWindow_;
    QuadMessagesWindow quadMessagesWindow_;
    HelpWindow helpWindow_;
};

}  // namespace vestrel
