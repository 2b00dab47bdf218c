// The solutions window: every solve of the session, and folders that are solved in the background.
#pragma once

#include <QDialog>
#include <functional>
#include <memory>
#include <vector>

#include "program/mSolutionTable.h"

class QLabel;
class QProgressBar;
class QPushButton;
class QTableWidget;

namespace vestrel {

class SolutionsWindow : public QDialog {
 public:
    SolutionsWindow(ProgramState& state, Port& port);

    /// Adds the solution of the loaded image.
    void Add(const SolvedPicture& picture);
    /// The picture was saved over its own file, whose stamp was `before`.
    void FileSaved(const PlateImage& image, const FileStamp& before);
    /// Solves all pictures of a folder in the background.
    void SolveFolder(const QString& folder);

    /// Called when the user wants to open the picture of a row with its solution.
    std::function<void(const SolvedPicture&)> OnRestore;

 protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

 private:
    void ShowCertainties();
    void ShowProgress();
    void AskForFolder();

    ProgramState& state_;
    Port& port_;
    QTableWidget* rows_;
    QLabel* told_;
    QProgressBar* bar_;
    QPushButton* stop_ = nullptr;
    QPushButton* export_ = nullptr;
    std::vector<SolvedPicture> pictures_;
    int wanted_ = 0;
    int done_ = 0;
    int solved_ = 0;
    int run_ = 0;  ///< counts the folders; results of an earlier one may still come
    std::unique_ptr<BackgroundSolver> solver_;
};

}  // namespace vestrel
