#include "desktop/fCatalog.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStandardPaths>
#include <QTimer>
#include <QVBoxLayout>

#include "desktop/libWindows.h"
#include "platform/libPlatform.h"
#include "program/mCatalogFacts.h"

namespace vestrel {

namespace {

/// The path of vestrel-catalog: beside this program, else on the PATH.
QString CatalogProgram() {
    const QString name = "vestrel-catalog";
    const QString beside =
        QStandardPaths::findExecutable(name, {QCoreApplication::applicationDirPath()});
    return beside.isEmpty() ? QStandardPaths::findExecutable(name) : beside;
}

QStringList Words(const ToolArguments& arguments) {
    QStringList words;
    for (const std::string& argument : arguments) words << QtText(argument);
    return words;
}

QDoubleSpinBox* FieldBox(const char* name, const QString& caption, double value) {
    constexpr double smallest = 0.2;
    constexpr double largest = 30;
    auto* box = new QDoubleSpinBox;
    box->setObjectName(name);
    box->setAccessibleName(caption);
    box->setRange(smallest, largest);
    box->setDecimals(2);
    box->setSingleStep(0.1);
    box->setSuffix("°");
    box->setValue(value);
    return box;
}

QPlainTextEdit* TextBox(const char* name, const QString& caption, int lines) {
    auto* text = new QPlainTextEdit;
    text->setObjectName(name);
    text->setAccessibleName(caption);
    text->setReadOnly(true);
    text->setTabChangesFocus(true);
    text->setMinimumHeight(text->fontMetrics().lineSpacing() * (lines + 1));
    return text;
}

QPushButton* Button(const char* name, const QString& caption, const QString& tip) {
    auto* button = new QPushButton(caption);
    button->setObjectName(name);
    button->setToolTip(tip);
    return button;
}

}  // namespace

CatalogWindow::CatalogWindow(ProgramState& state, Port& port, QWidget* parent)
    : QDialog(parent),
      state_(state),
      port_(port),
      facts_(TextBox("txtCatalogContent", "What the catalog holds", 5)),
      sources_(new QListWidget),
      faintest_(new InputBox),
      tables_(new QCheckBox("&Tables for fields of")),
      smallest_(FieldBox("numSmallestField", "Diagonal of the smallest fields",
                         CatalogWish().SmallestField)),
      largest_(FieldBox("numLargestField", "Diagonal of the largest fields",
                        CatalogWish().LargestField)),
      progress_(new QProgressBar),
      status_(new QLabel),
      log_(TextBox("txtBuildLog", "What the build says", 6)),
      build_(Button("cmdBuild", "&Build", "Make the catalog from the sources with a tick")),
      stop_(Button("cmdStopBuild", "&Stop", "The catalog stays as it was")),
      addFolder_(Button("cmdAddFolder", "Add &Folder...", "Look for sources in a folder")),
      addTable_(Button("cmdAddTable", "Add T&able...",
                       "A table of stars: text with named columns, or FITS")) {
    setObjectName("fCatalog");
    setWindowTitle("Catalog");
    sources_->setObjectName("lstCatalogSources");
    sources_->setAccessibleName("Sources");
    sources_->setFixedHeight(fontMetrics().lineSpacing() * 6);
    facts_->setFixedHeight(fontMetrics().lineSpacing() * 7);
    progress_->setObjectName("prgBuild");
    progress_->setAccessibleName("Progress of the build");
    status_->setObjectName("lblBuild");
    status_->setTextFormat(Qt::PlainText);
    status_->setWordWrap(true);
    log_->setMaximumBlockCount(1000);

    auto* grid = new QGridLayout;
    AddWishes(*grid);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    buttons->addButton(build_, QDialogButtonBox::ActionRole);
    buttons->addButton(stop_, QDialogButtonBox::ActionRole);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(facts_);
    layout->addLayout(grid);
    layout->addWidget(status_);
    layout->addWidget(progress_);
    layout->addWidget(log_, 1);
    layout->addWidget(buttons);
    WithoutDefaultButtons(*this);
    // The box would leave out a button of its own.
    setTabOrder(log_, build_);
    setTabOrder(build_, stop_);
    setTabOrder(stop_, buttons->button(QDialogButtonBox::Close));
    resize(fontMetrics().averageCharWidth() * 100, fontMetrics().lineSpacing() * 34);

    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(addFolder_, &QPushButton::clicked, this, [this] { AddFolder(); });
    connect(addTable_, &QPushButton::clicked, this, [this] { AddTable(); });
    connect(build_, &QPushButton::clicked, this, [this] { Build(); });
    connect(stop_, &QPushButton::clicked, this, [this] { Stop(); });
    connect(&process_, &QProcess::readyReadStandardError, this, [this] { ReadErrors(); });
    connect(&process_, &QProcess::finished, this, [this](int code, QProcess::ExitStatus status) {
        RunEnded(code, status == QProcess::CrashExit);
    });
    connect(&process_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) RunEnded(-1, true);
    });
}

CatalogWindow::~CatalogWindow() {
    process_.disconnect(this);
    if (process_.state() == QProcess::NotRunning) return;
    // A build that is asked to end removes its files itself; those of a killed one are removed by
    // the next build.
    constexpr int patience = 3000;  // ms
    process_.terminate();
    if (!process_.waitForFinished(patience)) process_.kill();
    process_.waitForFinished(patience);
}

void CatalogWindow::AddWishes(QGridLayout& grid) {
    auto* sourcesLabel = new QLabel("Sou&rces");
    sourcesLabel->setBuddy(sources_);
    auto* add = new QVBoxLayout;
    add->addWidget(addFolder_);
    add->addWidget(addTable_);
    add->addStretch();
    grid.addWidget(sourcesLabel, 0, 0, Qt::AlignTop);
    grid.addWidget(sources_, 0, 1);
    grid.addLayout(add, 0, 2);

    faintest_->setObjectName("txtFaintest");
    faintest_->setAccessibleName("Faintest magnitude");
    faintest_->setPlaceholderText("all stars");
    auto* faintestLabel = new QLabel("Faintest &magnitude");
    faintestLabel->setBuddy(faintest_);
    grid.addWidget(faintestLabel, 1, 0);
    grid.addWidget(faintest_, 1, 1, 1, 2);

    tables_->setObjectName("chkTables");
    tables_->setChecked(true);
    tables_->setToolTip("For searches without a centre. Narrow fields make large tables");
    auto* fields = new QHBoxLayout;
    fields->addWidget(smallest_);
    fields->addWidget(new QLabel("to"));
    fields->addWidget(largest_);
    fields->addWidget(new QLabel("across"));
    fields->addStretch();
    grid.addWidget(tables_, 2, 0);
    grid.addLayout(fields, 2, 1, 1, 2);
    connect(tables_, &QCheckBox::toggled, smallest_, &QWidget::setEnabled);
    connect(tables_, &QCheckBox::toggled, largest_, &QWidget::setEnabled);
}

void CatalogWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
}

void CatalogWindow::Refresh() {
    if (IsBuilding()) return;
    facts_->setPlainText(QtText(CatalogFacts(state_)));
    sources_->clear();
    choices_.clear();
    Ask(SourcesQuestion());
    ShowRunning();
}

void CatalogWindow::Ask(const ToolArguments& question) {
    // The subcommand only searches a few folders.
    constexpr int patience = 20000;  // ms
    QProcess asked;
    asked.start(CatalogProgram(), Words(question));
    const bool answered = asked.waitForFinished(patience) && asked.exitCode() == 0;
    const auto found =
        answered ? ReadSources(asked.readAllStandardOutput().toStdString()) : std::nullopt;
    if (!found) {
        status_->setText("The program vestrel-catalog cannot be run: " + asked.errorString());
        return;
    }
    const std::size_t before = choices_.size();
    for (const CatalogSourceChoice& source : *found) AddSource(source);
    if (choices_.size() > before) {
        status_->setText("A star that several of the sources have is taken once.");
    } else {
        status_->setText(
            "No source was found there. Packages such as astrometry-data-tycho2 and kstars-data, "
            "star databases of ASTAP and index files of Astrometry.net are sources.");
    }
}

void CatalogWindow::AddSource(const CatalogSourceChoice& source) {
    for (const CatalogSourceChoice& known : choices_) {
        if (known.BuildOptions == source.BuildOptions) return;
    }
    choices_.push_back(source);
    auto* item = new QListWidgetItem(QtText(source.Text), sources_);
    item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
    item->setCheckState(Qt::Checked);
    item->setToolTip(PlainToolTip(QtText(source.Text)));
}

void CatalogWindow::AddFolder() {
    const QString folder = QFileDialog::getExistingDirectory(this, "Folder With Sources");
    if (!folder.isEmpty()) Ask(SourcesQuestion(Utf8(folder)));
}

void CatalogWindow::AddTable() {
    FileDialog dialog;
    dialog.Title = "Table of Stars";
    dialog.Filters = "Tables|*.csv;*.tsv;*.txt;*.gz;*.fits;*.fit|All files|*.*";
    if (const auto chosen = port_.AskForFile(dialog)) AddSource(SourceOfTable(*chosen));
}

CatalogWish CatalogWindow::Wish() const {
    CatalogWish wish;
    wish.Folder = TextFromPath(state_.Catalog.Folder);
    for (int row = 0; row < sources_->count(); ++row) {
        if (sources_->item(row)->checkState() == Qt::Checked) {
            wish.Sources.push_back(choices_[static_cast<std::size_t>(row)]);
        }
    }
    wish.FaintestMagnitude = Utf8(faintest_->text());
    wish.Tables = tables_->isChecked();
    wish.SmallestField = smallest_->value();
    wish.LargestField = largest_->value();
    return wish;
}

void CatalogWindow::Build() {
    const CatalogWish wish = Wish();
    const CatalogRuns asked = RunsFor(wish);
    if (!asked.Fault.empty()) {
        status_->setText(QtText(asked.Fault));
        return;
    }
    const bool replaces = !wish.Sources.empty() && QFileInfo::exists(QtText(wish.Folder));
    if (replaces && !port_.Confirm("The new catalog takes the place of the one in " + wish.Folder +
                                       " once it is complete. Build it?",
                                   "Catalog")) {
        return;
    }
    runs_ = asked.Runs;
    folder_ = wish.Folder;
    isNew_ = false;
    isStopped_ = false;
    log_->clear();
    StartRun();
}

void CatalogWindow::StartRun() {
    errors_.clear();
    status_->setText("Starting");
    progress_->setRange(0, 0);
    ShowRunning();
    process_.start(CatalogProgram(), Words(runs_.front()));
}

void CatalogWindow::Stop() {
    isStopped_ = true;
    stop_->setEnabled(false);
    status_->setText("Stopping");
#ifdef Q_OS_WIN
    process_.kill();  // console programs cannot be asked to end there
#else
    process_.terminate();
#endif
}

void CatalogWindow::ReadErrors() {
    errors_ += process_.readAllStandardError();
    for (qsizetype end = 0; (end = errors_.indexOf('\n')) >= 0; errors_.remove(0, end + 1)) {
        TakeLine(QString::fromUtf8(errors_.left(end)));
    }
}

void CatalogWindow::TakeLine(const QString& line) {
    const auto progress = ReadProgress(Utf8(line));
    if (!progress) {
        log_->appendPlainText(line);
        return;
    }
    progress_->setRange(0, progress->Percent ? 100 : 0);
    progress_->setValue(progress->Percent.value_or(0));
    if (isStopped_) return;
    status_->setText(QtText(progress->Task + ": " + progress->Count));
}

void CatalogWindow::RunEnded(int exitCode, bool crashed) {
    if (runs_.empty()) return;
    ReadErrors();
    if (!errors_.isEmpty()) TakeLine(QString::fromUtf8(errors_));
    const QString results = QString::fromUtf8(process_.readAllStandardOutput()).trimmed();
    if (!results.isEmpty()) log_->appendPlainText(results);
    const bool good = exitCode == 0 && !crashed;
    if (good) {
        isNew_ = isNew_ || runs_.front().front() == "build";
        runs_.erase(runs_.begin());
        facts_->setPlainText(QtText(CatalogFacts(state_)));
        if (!runs_.empty() && !isStopped_) return StartRun();
    } else {
        if (crashed && !isStopped_) log_->appendPlainText(process_.errorString());
        runs_.clear();
    }
    const bool complete = good && runs_.empty();
    runs_.clear();
    status_->setText(QtText(EndOfRunsText(exitCode, isStopped_ && !complete, isNew_)));
    progress_->setRange(0, 100);
    progress_->setValue(complete ? 100 : 0);
    ShowRunning();
    if (isNew_ || good) UseNewCatalog();
}

void CatalogWindow::UseNewCatalog() {
    if (state_.Running != Activity::None) {
        // A running search uses the cells that it has read, so wait until it ends.
        constexpr int later = 200;  // ms
        QTimer::singleShot(later, this, [this] { UseNewCatalog(); });
        return;
    }
    if (TextFromPath(state_.Catalog.Folder) == folder_) {
        state_.Catalog = {};
        state_.Catalog.Folder = PathFromText(folder_);
        state_.Quads = {};
    }
    facts_->setPlainText(QtText(CatalogFacts(state_)));
    if (OnCatalogChanged) OnCatalogChanged();
}

void CatalogWindow::ShowRunning() {
    const bool building = IsBuilding();
    for (QWidget* widget : std::initializer_list<QWidget*>{sources_, faintest_, tables_, build_,
                                                           addFolder_, addTable_}) {
        widget->setEnabled(!building);
    }
    smallest_->setEnabled(!building && tables_->isChecked());
    largest_->setEnabled(!building && tables_->isChecked());
    stop_->setEnabled(building);
    progress_->setVisible(building);
    if (!building && progress_->maximum() == 0) progress_->setRange(0, 100);
}

}  // namespace vestrel
