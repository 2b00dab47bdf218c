// The catalog window: builds the star catalog and its quad tables from star data of other programs.
#pragma once

#include <QDialog>
#include <QProcess>
#include <functional>
#include <vector>

#include "program/mCatalogBuild.h"
#include "program/mGeneral.h"

class QCheckBox;
class QDoubleSpinBox;
class QGridLayout;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;

namespace vestrel {

class CatalogWindow : public QDialog {
 public:
    CatalogWindow(ProgramState& state, Port& port, QWidget* parent);
    ~CatalogWindow() override;
    CatalogWindow(const CatalogWindow&) = delete;
    CatalogWindow& operator=(const CatalogWindow&) = delete;

    /// Reads the catalog and searches for sources again, unless a build runs.
    void Refresh();
    bool IsBuilding() const { return !runs_.empty(); }
    /// Stops a build; the catalog stays as it was.
    void Stop();

    /// Called when there is a new catalog or new tables.
    std::function<void()> OnCatalogChanged;

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    void AddWishes(QGridLayout& grid);
    void Ask(const ToolArguments& question);
    void AddSource(const CatalogSourceChoice& source);
    void AddFolder();
    void AddTable();
    CatalogWish Wish() const;
    void Build();
    void StartRun();
    void ReadErrors();
    void TakeLine(const QString& line);
    void RunEnded(int exitCode, bool crashed);
    void UseNewCatalog();
    void ShowRunning();

    ProgramState& state_;
    Port& port_;
    QPlainTextEdit* facts_;
    QListWidget* sources_;
    QLineEdit* faintest_;
    QCheckBox* tables_;
    QDoubleSpinBox* smallest_;
    QDoubleSpinBox* largest_;
    QProgressBar* progress_;
    QLabel* status_;
    QPlainTextEdit* log_;
    QPushButton* build_;
    QPushButton* stop_;
    QPushButton* addFolder_;
    QPushButton* addTable_;

    std::vector<CatalogSourceChoice> choices_;  ///< the sources in the order of the list
    QProcess process_;
    std::vector<ToolArguments> runs_;  ///< the runs that remain, the current one first
    std::string folder_;               ///< the folder that is being built
    QByteArray errors_;                ///< the incomplete last line of standard error
    bool isNew_ = false;               ///< a run has replaced the catalog
    bool isStopped_ = false;
};

}  // namespace vestrel
