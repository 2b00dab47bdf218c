// The layout of the solve window.

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QFontDatabase>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QShortcut>
#include <QStatusBar>
#include <QTextEdit>
#include <QVBoxLayout>
#include <utility>

#include "desktop/fKELInfo.h"
#include "program/mSkyObjects.h"
#include "program/mSolveWindow.h"

namespace vestrel {

namespace {

/// Between lines that are only read.
constexpr int closeLines = 3;

/// How many characters stand between those that the beginnings and the ends of two texts share.
qsizetype NewCharacters(const QString& before, const QString& now) {
    const qsizetype shared = qMin(before.size(), now.size());
    qsizetype start = 0;
    while (start < shared && before[start] == now[start]) ++start;
    qsizetype end = 0;
    while (end < shared - start && before[before.size() - 1 - end] == now[now.size() - 1 - end]) {
        ++end;
    }
    return now.size() - start - end;
}

}  // namespace

void SolveWindow::BuildControls() {
    auto* central = new QWidget(this);
    auto* inputs = new QVBoxLayout;
    inputs->addWidget(BuildCentreInputs());
    inputs->addWidget(BuildSizeInputs());
    inputs->addWidget(BuildSearchLimit());
    inputs->addSpacing(closeLines);
    inputs->addLayout(BuildCommands());
    inputs->addWidget(BuildCountdown());
    inputs->addStretch();

    using Display = SolveDisplay;
    auto* results = new QGridLayout;
    results->addWidget(BuildCentre(), 0, 0);
    results->addWidget(BuildShownValues("Starting Values",
                                        {{"RA", "lblRA0", &Display::StartRa},
                                         {"Dec", "lblDec0", &Display::StartDec},
                                         {"Plate Size", "lblSize", &Display::StartSize},
                                         {"Max Regions", "lblMaxRegions", &Display::StartRegions}}),
                       0, 1);
    results->addWidget(
        BuildShownValues("Plate Geometry", {{"Plate Size", "lblPlateSize", &Display::PlateSize},
                                            {"Pixel Size", "lblScale", &Display::Scale},
                                            {"Stretch", "lblStretch", &Display::Stretch},
                                            {"Skew", "lblSkew", &Display::Skew},
                                            {"Angle", "lblAngle", &Display::Angle}}),
        1, 0);
    results->addWidget(
        BuildShownValues("Stars", {{"Extracted", "lblNPlate", &Display::Extracted},
                                   {"Found In Catalog", "lblNCat", &Display::FoundInCatalog},
                                   {"Matched", "lblNMatch", &Display::Matched},
                                   {"RMS Difference", "lblRMS", &Display::RmsDifference}}),
        1, 1);
    results->setColumnStretch(0, 1);
    results->setColumnStretch(1, 1);

    auto* outcome = new QVBoxLayout;
    outcome->addLayout(results);
    outcome->addWidget(BuildStatus(), 1);
    auto* columns = new QHBoxLayout;
    columns->addLayout(inputs, 0);
    columns->addLayout(outcome, 1);
    auto* rows = new QVBoxLayout(central);
    const QMargins margins = rows->contentsMargins();
    rows->setContentsMargins(margins.left(), closeLines, margins.right(), closeLines);
    rows->addWidget(BuildImageName());
    rows->addLayout(columns, 1);
    // On small screens or with large fonts it scrolls.
    auto* scroll = new QScrollArea;
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setFocusPolicy(Qt::NoFocus);
    scroll->setWidgetResizable(true);
    scroll->setWidget(central);
    setCentralWidget(scroll);
    QLabel* clock = AddShown("lblClock", &SolveDisplay::Clock);
    clock->setAccessibleName("Universal time, Julian date and local sidereal time");
    statusBar()->addPermanentWidget(clock);
    // Room for the details of a solve, in lines and columns.
    const QFontMetrics letters(details_->font());
    const int bars = 2 * (fontMetrics().height() + 12);
    resize(inputs->sizeHint().width() + letters.averageCharWidth() * 90,
           central->sizeHint().height() + bars + 11 * letters.lineSpacing());

    auto* escape = new QShortcut(Qt::Key_Escape, this);
    connect(escape, &QShortcut::activated, this, [this] { Stop(); });
}

QGroupBox* SolveWindow::BuildImageName() {
    auto* group = new QGroupBox("Image File Name");
    nameLabel_ = new ElidedLabel;
    nameLabel_->setObjectName("lblName");
    QFont font = nameLabel_->font();
    font.setBold(true);
    nameLabel_->setFont(font);
    folderLabel_ = new ElidedLabel;
    folderLabel_->setObjectName("lblDir");
    auto* layout = new QHBoxLayout(group);
    layout->setSpacing(16);
    for (QLabel* label : {nameLabel_, folderLabel_}) {
        label->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
        label->setMinimumWidth(1);
        layout->addWidget(label);
    }
    layout->addStretch();
    return group;
}

QGroupBox* SolveWindow::BuildCentreInputs() {
    auto* group = new QGroupBox("Approximate Image Center");
    auto* layout = new QGridLayout(group);
    QLineEdit* ra =
        AddInput("txtRA", "Right ascension of the approximate image centre", &SolveInputs::Ra);
    ra->setPlaceholderText("hh mm ss, degrees, name");
    QLineEdit* dec =
        AddInput("txtDec", "Declination of the approximate image centre", &SolveInputs::Dec);
    dec->setPlaceholderText("dd mm ss or degrees");
    ra->setMinimumWidth(fontMetrics().horizontalAdvance("hh mm ss, degrees, name  "));
    auto* raLabel = new QLabel("&RA");
    raLabel->setBuddy(ra);
    auto* decLabel = new QLabel("&Dec");
    decLabel->setBuddy(dec);
    QPushButton* load =
        AddButton("cmdLoad", "Load", "Load coords from SiTech", [this] { LoadTelescope(); });
    startWidgets_.push_back(load);
    layout->addWidget(raLabel, 0, 0);
    layout->addWidget(ra, 0, 1);
    layout->addWidget(decLabel, 1, 0);
    layout->addWidget(dec, 1, 1);
    layout->addWidget(load, 0, 2, 2, 1, Qt::AlignVCenter);
    return group;
}

QGroupBox* SolveWindow::BuildSizeInputs() {
    auto* group = new QGroupBox("Approximate Image Si&ze");
    auto* layout = new QHBoxLayout(group);
    QLineEdit* width = AddInput("txtXsize", "Approximate image width", &SolveInputs::SizeX);
    QLineEdit* height = AddInput("txtYsize", "Approximate image height", &SolveInputs::SizeY);
    unitsButton_ = AddButton("cmdUnits", {}, "Change the units", [this] { SwitchUnits(state_); });
    unitsButton_->setAccessibleDescription("Change the units");
    layout->addWidget(width);
    layout->addWidget(new QLabel("X"));
    layout->addWidget(height);
    layout->addWidget(unitsButton_);
    return group;
}

QGroupBox* SolveWindow::BuildSearchLimit() {
    auto* group = new QGroupBox("Search Limit");
    auto* layout = new QHBoxLayout(group);
    QLineEdit* regions = AddInput("txtRegions", "Search limit in regions", &SolveInputs::Regions);
    auto* label = new QLabel("Re&gions");
    label->setBuddy(regions);
    layout->addWidget(regions);
    layout->addWidget(label);
    return group;
}

QLayout* SolveWindow::BuildCommands() {
    auto* layout = new QGridLayout;
    QPushButton* match =
        AddButton("cmdMatch", "Plate &Match", "Attempt a plate match", [this] { Match(); });
    startWidgets_.push_back(match);
    stopButton_ =
        AddButton("cmdStop", "S&top Search", "Stop the Current Search", [this] { Stop(); });
    QPushButton* image =
        AddButton("cmdImage", "Show &Image", "Display the image", [this] { Bring(imageWindow_); });
    QPushButton* parameters =
        AddButton("Command1", "Edit &Parameters", "Change search and star extraction parameters",
                  [this] { EditParameters(); });
    startWidgets_.push_back(parameters);
    quadsButton_ =
        AddButton("cmdMORA", "M&ORA", "Match patterns of four stars, wherever the image points",
                  [this] { MatchQuads(); });
    quadsButton_->hide();
    QPushButton* just =
        AddButton("cmdJustSolve", "&Just Solve",
                  "Solve with whatever is known, else over the whole sky (Ctrl+Enter)",
                  [this] { JustSolve(); });
    startWidgets_.push_back(just);
    startWidgets_.push_back(quadsButton_);
    layout->addWidget(just, 0, 0, 1, 2);
    layout->addWidget(match, 1, 0);
    layout->addWidget(stopButton_, 1, 1);
    layout->addWidget(image, 2, 0);
    layout->addWidget(parameters, 2, 1);
    layout->addWidget(quadsButton_, 3, 0, 1, 2);
    layout->setColumnStretch(0, 1);
    layout->setColumnStretch(1, 1);
    return layout;
}

QGroupBox* SolveWindow::BuildCentre() {
    centrePanel_ = new QGroupBox;
    centrePanel_->setObjectName("fraCenter");
    QLabel* ra = AddShown("lblRA", &SolveDisplay::CentreRa);
    QLabel* dec = AddShown("lblDec", &SolveDisplay::CentreDec);
    ra->setAccessibleName("Right ascension");
    dec->setAccessibleName("Declination");
    for (QLabel* label : {ra, dec}) {
        QFont font = label->font();
        font.setBold(true);
        font.setPointSizeF(font.pointSizeF() * 1.3);
        label->setFont(font);
    }
    ra->setMinimumWidth(QFontMetrics(ra->font()).horizontalAdvance("-00\u00b0 00' 00.0\"  "));
    syncButton_ =
        AddButton("cmdSync", "Sync", "Send coords to SiTech", [this] { SyncTelescope(); });
    auto* layout = new QFormLayout(centrePanel_);
    layout->setVerticalSpacing(closeLines);
    layout->addRow("RA", ra);
    layout->addRow("Dec", dec);
    layout->addRow({}, syncButton_);
    return centrePanel_;
}

QGroupBox* SolveWindow::BuildShownValues(
    const QString& title,
    const std::vector<std::tuple<const char*, const char*, std::string SolveDisplay::*>>& rows) {
    auto* group = new QGroupBox(title);
    auto* layout = new QFormLayout(group);
    layout->setHorizontalSpacing(16);
    layout->setVerticalSpacing(closeLines);
    for (const auto& [caption, name, text] : rows) {
        QLabel* shown = AddShown(name, text);
        shown->setAccessibleName(title + ", " + caption);
        shown->setMinimumWidth(fontMetrics().horizontalAdvance("000.00' X 000.00'  "));
        layout->addRow(caption, shown);
    }
    return group;
}

QGroupBox* SolveWindow::BuildStatus() {
    auto* group = new QGroupBox("Status");
    const auto addLine = [](const char* name) {
        // As wide as its text, but a long text does not widen the window.
        auto* label = new ElidedLabel;
        label->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
        label->setMinimumWidth(1);
        label->setObjectName(name);
        QFont font = label->font();
        font.setBold(true);
        label->setFont(font);
        return label;
    };
    statusLabel_ = addLine("lblStatus");
    status1Label_ = addLine("lblStatus1");
    stageLabel_ = addLine("lblStage");
    busyBar_ = new QProgressBar;
    busyBar_->setObjectName("picBusy");
    busyBar_->setAccessibleName("Progress");
    busyBar_->setTextVisible(false);
    busyBar_->setFixedWidth(fontMetrics().averageCharWidth() * 18);
    QSizePolicy policy = busyBar_->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    busyBar_->setSizePolicy(policy);
    details_ = new QTextEdit;
    details_->setObjectName("txtDetails");
    details_->setAccessibleName("Details of the last solve");
    details_->setReadOnly(true);
    details_->setTabChangesFocus(true);
    details_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    details_->setPlaceholderText("What a solve saw is told here.");
    // It takes the remaining space.
    details_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Ignored);
    details_->setMinimumHeight(QFontMetrics(details_->font()).lineSpacing() * 2);

    auto* lines = new QHBoxLayout;
    lines->setSpacing(16);
    lines->addWidget(statusLabel_);
    lines->addWidget(status1Label_);
    lines->addStretch();
    lines->addWidget(busyBar_);
    auto* layout = new QVBoxLayout(group);
    layout->setSpacing(closeLines);
    layout->addLayout(lines);
    layout->addWidget(stageLabel_);
    layout->addLayout(BuildTrust());
    layout->addWidget(details_, 1);
    return group;
}

QLayout* SolveWindow::BuildTrust() {
    trustLabel_ = new QLabel;
    trustLabel_->setObjectName("lblTrust");
    trustLabel_->setAccessibleName("How far the result can be trusted");
    trustLabel_->setTextFormat(Qt::PlainText);
    QFont font = trustLabel_->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.3);
    trustLabel_->setFont(font);
    trustWhyLabel_ = new WholeLabel;
    trustWhyLabel_->setObjectName("lblTrustWhy");
    trustWhyLabel_->setAccessibleName("Why, and what would settle it");
    trustWhyLabel_->setTextFormat(Qt::PlainText);
    offerButton_ = AddButton("cmdOffer", "Just Solve", "Look everywhere (Ctrl+Enter)",
                             [this] { JustSolve(); });
    startWidgets_.push_back(offerButton_);
    residualsButton_ = AddButton("cmdResiduals", "Resid&uals", "Where the matched stars lie",
                                 [this] { Bring(residualsWindow_); });
    auto* layout = new QHBoxLayout;
    layout->setSpacing(12);
    layout->addWidget(trustLabel_);
    layout->addWidget(trustWhyLabel_, 1);
    layout->addWidget(offerButton_);
    layout->addWidget(residualsButton_);
    return layout;
}

QWidget* SolveWindow::BuildCountdown() {
    countdownRow_ = new QWidget;
    auto* keep = new QCheckBox("&Keep Open");
    keep->setObjectName("chkKeep");
    connect(keep, &QCheckBox::toggled, this, [this](bool on) { state_.Inputs.KeepOpen = on; });
    QLabel* timer = AddShown("lblTimer", &SolveDisplay::Countdown);
    timer->setAccessibleName("Seconds until the program closes");
    auto* layout = new QHBoxLayout(countdownRow_);
    layout->setContentsMargins({});
    layout->addWidget(keep);
    layout->addStretch();
    layout->addWidget(new QLabel("Closes in"));
    layout->addWidget(timer);
    layout->addWidget(new QLabel("seconds"));
    // Only an unattended run closes the program.
    countdownRow_->hide();
    return countdownRow_;
}

QLineEdit* SolveWindow::AddInput(const char* name, const QString& accessibleName,
                                 std::string SolveInputs::*text) {
    auto* input = new InputBox;
    input->setObjectName(name);
    input->setAccessibleName(accessibleName);
    connect(input, &QLineEdit::textChanged, this, [this, text](const QString& typed) {
        // This many new characters at once were pasted.
        constexpr qsizetype pasted = 6;
        const QString before = QtText(state_.Inputs.*text);
        state_.Inputs.*text = Utf8(typed);
        const bool centre = text == &SolveInputs::Ra || text == &SolveInputs::Dec;
        if (!centre || NewCharacters(before, typed) < pasted) return;
        if (const auto position = WholePosition(state_.Inputs, text)) {
            SetCentre(state_.Inputs, *position);
            ShowInputs();
        }
    });
    connect(input, &QLineEdit::returnPressed, this, [this] { Run([this] { Match(); }); });
    inputs_.emplace_back(input, text);
    return input;
}

QLabel* SolveWindow::AddShown(const char* name, std::string SolveDisplay::*text) {
    auto* label = new QLabel;
    label->setObjectName(name);
    label->setTextFormat(Qt::PlainText);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    shown_.emplace_back(label, text);
    return label;
}

QPushButton* SolveWindow::AddButton(const char* name, const QString& text, const QString& toolTip,
                                    std::function<void()> command) {
    auto* button = new QPushButton(text);
    button->setObjectName(name);
    button->setToolTip(toolTip);
    connect(button, &QPushButton::clicked, this,
            [this, command = std::move(command)] { Run(command); });
    return button;
}

}  // namespace vestrel
