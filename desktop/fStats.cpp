#include "desktop/fStats.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "desktop/libGraph.h"
#include "desktop/libWindows.h"

namespace vestrel {

StatsWindow::StatsWindow(ProgramState& state, QWidget* parent)
    : QDialog(parent, Qt::Window),
      state_(state),
      aperture_(AddRadius("numAperture", "Radius of the circle whose counts are added", 200,
                          &SolveParameters::ApertureRadius)),
      background_(AddRadius("numBackground", "Inner radius of the ring that tells the sky", 500,
                            &SolveParameters::BackgroundRadius)),
      warning_(new QLabel),
      text_(new QPlainTextEdit),
      profile_(new ProfileArea) {
    setObjectName("fStats");
    setWindowTitle("Star Statistics");
    warning_->setObjectName("lblWarning");
    warning_->setTextFormat(Qt::PlainText);
    warning_->setWordWrap(true);
    text_->setObjectName("txtStatistics");
    text_->setAccessibleName("Figures of the star");
    text_->setReadOnly(true);
    text_->setTabChangesFocus(true);
    text_->setLineWrapMode(QPlainTextEdit::NoWrap);
    text_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    text_->setPlaceholderText("Click a star in the image window.");
    const QFontMetrics metrics(text_->font());
    text_->setMinimumSize(metrics.averageCharWidth() * 58, metrics.lineSpacing() * 12);

    auto* apertureLabel = new QLabel("&Aperture radius");
    apertureLabel->setBuddy(aperture_);
    auto* backgroundLabel = new QLabel("&Background radius");
    backgroundLabel->setBuddy(background_);
    auto* boxes = new QHBoxLayout;
    boxes->addWidget(apertureLabel);
    boxes->addWidget(aperture_);
    boxes->addSpacing(16);
    boxes->addWidget(backgroundLabel);
    boxes->addWidget(background_);
    boxes->addStretch();
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    copy_ = buttons->addButton("&Copy", QDialogButtonBox::ActionRole);
    copy_->setObjectName("cmdCopy");
    copy_->setToolTip("Copy the figures as text");
    connect(copy_, &QPushButton::clicked, this,
            [this] { QApplication::clipboard()->setText(text_->toPlainText()); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(boxes);
    layout->addWidget(warning_);
    layout->addWidget(text_, 3);
    layout->addWidget(profile_, 2);
    layout->addWidget(buttons);
    resize(metrics.averageCharWidth() * 68, 760);
    WithoutDefaultButtons(*this);
    Clear();
}

QDoubleSpinBox* StatsWindow::AddRadius(const char* name, const QString& toolTip, double largest,
                                       double SolveParameters::*radius) {
    auto* box = new QDoubleSpinBox;
    box->setObjectName(name);
    box->setToolTip(toolTip);
    box->setRange(1, largest);
    box->setDecimals(1);
    box->setSuffix(" px");
    box->setKeyboardTracking(false);
    box->setLocale(QLocale::c());
    box->setValue(state_.Parameters.*radius);
    connect(box, &QDoubleSpinBox::valueChanged, this, [this, radius](double value) {
        state_.Parameters.*radius = value;
        if (clicked_) Measure(*clicked_);
    });
    return box;
}

void StatsWindow::Measure(const PixelPoint& pixel) {
    // While something runs, threads may be at work on the pixels.
    if (state_.Running != Activity::None) return;
    clicked_ = pixel;
    Show(MeasureStarAt(state_, pixel));
}

void StatsWindow::Show(const StarReport& report) {
    const bool measured = report.Star.Outcome == StarOutcome::Measured;
    const QString warning = QtText(WarningsOf(report));
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText, StatusTextColour(StatusColour::Red, palette()));
    warning_->setPalette(colours);
    warning_->setText(warning);
    warning_->setVisible(!warning.isEmpty());
    text_->setPlainText(QtText(ReportText(report)));
    profile_->Points = RadialProfile(state_.Image, report.Star);
    profile_->Star = measured ? std::optional(report.Star) : std::nullopt;
    profile_->update();
    copy_->setEnabled(measured);
    if (OnMeasured) OnMeasured(profile_->Star);
}

void StatsWindow::Clear() {
    clicked_.reset();
    warning_->hide();
    text_->clear();
    profile_->Points.clear();
    profile_->Star.reset();
    profile_->update();
    copy_->setEnabled(false);
    if (OnMeasured) OnMeasured(std::nullopt);
}

void StatsWindow::ImageChanged() {
    // The shown measurements belong to the former image.
    if (clicked_) Clear();
}

void StatsWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
    // Another window may have changed the parameters.
    const QSignalBlocker noAperture(aperture_);
    const QSignalBlocker noBackground(background_);
    aperture_->setValue(state_.Parameters.ApertureRadius);
    background_->setValue(state_.Parameters.BackgroundRadius);
}

}  // namespace vestrel
