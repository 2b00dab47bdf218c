#include "desktop/fSolutions.h"

#include <QDialogButtonBox>
#include <QEvent>
#include <QFileDialog>
#include <QHeaderView>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include "desktop/libWindows.h"

namespace vestrel {

SolutionsWindow::SolutionsWindow(ProgramState& state, Port& port)
    : QDialog(nullptr, Qt::Window),
      state_(state),
      port_(port),
      rows_(new QTableWidget(0, static_cast<int>(SolutionColumns.size()))),
      told_(new QLabel("Every solve of this session. Enter or a double click opens it again.")),
      bar_(new QProgressBar) {
    setObjectName("fSolutions");
    setWindowTitle("Solutions");
    told_->setObjectName("lblSolutions");
    told_->setTextFormat(Qt::PlainText);
    told_->setWordWrap(true);
    bar_->setObjectName("picFolder");
    bar_->setAccessibleName("Pictures of the folder that are done");
    bar_->hide();
    rows_->setObjectName("tblSolutions");
    rows_->setAccessibleName("Solutions of this session");
    QStringList captions;
    for (const char* caption : SolutionColumns) captions << caption;
    rows_->setHorizontalHeaderLabels(captions);
    rows_->setEditTriggers(QTableWidget::NoEditTriggers);
    rows_->setSelectionBehavior(QTableWidget::SelectRows);
    rows_->setWordWrap(false);
    rows_->setTabKeyNavigation(false);
    rows_->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    rows_->horizontalHeader()->setSectionResizeMode(rows_->columnCount() - 1, QHeaderView::Stretch);
    rows_->verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 8);
    connect(rows_, &QTableWidget::cellActivated, this, [this](int row, int) {
        if (OnRestore) OnRestore(pictures_[static_cast<std::size_t>(row)]);
    });
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    auto* folder = buttons->addButton("Solve &Folder...", QDialogButtonBox::ActionRole);
    folder->setObjectName("cmdFolder");
    stop_ = buttons->addButton("S&top", QDialogButtonBox::ActionRole);
    stop_->setObjectName("cmdStopFolder");
    export_ = buttons->addButton("&Export CSV...", QDialogButtonBox::ActionRole);
    export_->setObjectName("cmdExportSolutions");
    connect(folder, &QPushButton::clicked, this, [this] { AskForFolder(); });
    connect(stop_, &QPushButton::clicked, this, [this] {
        if (solver_) solver_->Stop();
    });
    connect(export_, &QPushButton::clicked, this,
            [this] { ExportSolutions(state_, port_, pictures_); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(told_);
    layout->addWidget(rows_, 1);
    layout->addWidget(bar_);
    layout->addWidget(buttons);
    resize(fontMetrics().averageCharWidth() * 130, 420);
    WithoutDefaultButtons(*this);
    ShowProgress();
}

void SolutionsWindow::FileSaved(const PlateImage& image, const FileStamp& before) {
    for (SolvedPicture& picture : pictures_) {
        if (picture.Path == image.FileName && picture.Stamp == before) picture.Stamp = image.Stamp;
    }
}

void SolutionsWindow::Add(const SolvedPicture& picture) {
    pictures_.push_back(picture);
    const int row = rows_->rowCount();
    rows_->insertRow(row);
    int column = 0;
    for (const std::string& cell : SolutionCells(picture)) {
        auto* item = new QTableWidgetItem(QtText(cell));
        item->setToolTip(PlainToolTip(QtText(column == 0 ? picture.Path : cell)));
        rows_->setItem(row, column++, item);
    }
    ShowCertainties();
    rows_->scrollToBottom();
    ShowProgress();
}

void SolutionsWindow::ShowCertainties() {
    constexpr int column = 5;
    for (int row = 0; row < rows_->rowCount(); ++row) {
        const SolvedPicture& picture = pictures_[static_cast<std::size_t>(row)];
        const auto level = picture.Solution ? picture.Verdict.Level : TrustLevel::Doubtful;
        rows_->item(row, column)->setForeground(TrustColour(level, palette()));
    }
}

void SolutionsWindow::ShowProgress() {
    const bool runs = done_ < wanted_;
    setWindowTitle(runs ? QString("%1 of %2 - Solutions").arg(done_).arg(wanted_) : "Solutions");
    bar_->setRange(0, wanted_);
    bar_->setValue(done_);
    bar_->setVisible(runs);
    if (wanted_ > 0) ShowTaskbarProgress(done_, wanted_);
    stop_->setEnabled(runs);
    export_->setEnabled(!pictures_.empty());
}

void SolutionsWindow::AskForFolder() {
    const QString folder = QFileDialog::getExistingDirectory(
        this, "Solve Folder", QtText(state_.Parameters.LastOpenFolder));
    if (!folder.isEmpty()) SolveFolder(folder);
}

void SolutionsWindow::SolveFolder(const QString& folder) {
    solver_.reset();
    ++run_;
    const std::vector<std::string> paths = PicturesIn(Utf8(folder));
    wanted_ = static_cast<int>(paths.size());
    done_ = 0;
    solved_ = 0;
    if (paths.empty()) told_->setText("There is no picture in " + folder);
    if (!paths.empty()) told_->setText("Solving the pictures of " + folder);
    const auto last = paths.empty() ? std::string() : paths.back();
    solver_ = std::make_unique<BackgroundSolver>(
        state_.Parameters, state_.Catalog.Folder, paths,
        [this, folder, last, run = run_](const SolvedPicture& picture) {
            // Passes the result from the solver's thread to that of the windows.
            QMetaObject::invokeMethod(
                this,
                [this, picture, folder, run,
                 ends = picture.Path == last || picture.Failure == "Stopped"] {
                    if (run == run_) {
                        ++done_;
                        solved_ += picture.Solution ? 1 : 0;
                    }
                    if (run == run_ && ends) {
                        told_->setText(
                            QString("Solved %1 of the %2 pictures of %3")
                                .arg(QString::number(solved_), QString::number(wanted_), folder));
                        wanted_ = done_;
                    }
                    Add(picture);
                },
                Qt::QueuedConnection);
        });
    ShowProgress();
}

void SolutionsWindow::changeEvent(QEvent* event) {
    QDialog::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) ShowCertainties();
}

void SolutionsWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
}

}  // namespace vestrel
