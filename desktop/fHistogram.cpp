#include "desktop/fHistogram.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>
#include <limits>
#include <utility>

#include "desktop/libGraph.h"
#include "desktop/libWindows.h"
#include "display/libPlot.h"
#include "program/mImageView.h"
#include "program/mWorkBeside.h"

namespace vestrel {

namespace {

/// Some thousand counts of an image, which tell whether it is still the same.
std::vector<std::int32_t> SampleOf(const PlateImage& image) {
    constexpr std::int64_t counts = 4096;
    const std::int64_t pixels = std::int64_t{image.Width} * image.Height;
    std::vector<std::int32_t> sample = {image.Width, image.Height, image.DataOffset};
    for (std::int64_t k = 0; k < std::min(counts, pixels); ++k) {
        const std::int64_t place = k * pixels / std::min(counts, pixels);
        sample.push_back(image.Pixels(static_cast<std::int32_t>(place % image.Width),
                                      static_cast<std::int32_t>(place / image.Width)));
    }
    return sample;
}

}  // namespace

LevelsWindow::LevelsWindow(ProgramState& state, Port& port, QWidget* parent)
    : QDialog(parent, Qt::Window), state_(state), port_(port), area_(new HistogramArea) {
    setObjectName("fHistogram");
    setWindowTitle("Levels");
    auto* rows = new QGridLayout;
    black_ = AddLevel(rows, 0, "Black", "&Black", &CountLevels::Black);
    white_ = AddLevel(rows, 1, "White", "&White", &CountLevels::White);

    transfer_ = new QComboBox;
    transfer_->setObjectName("cboTransfer");
    // In the order of `Transfer`.
    transfer_->addItems({"Linear", "Square root", "Asinh", "Logarithmic"});
    connect(transfer_, &QComboBox::activated, this, [this](int index) {
        state_.DisplayTransfer = static_cast<Transfer>(index);
        if (OnLevelsChanged) OnLevelsChanged();
    });
    auto* transferLabel = new QLabel("&Transfer");
    transferLabel->setBuddy(transfer_);
    logarithmic_ = new QCheckBox("&Logarithmic histogram");
    logarithmic_->setObjectName("chkLogarithmic");
    logarithmic_->setChecked(true);
    connect(logarithmic_, &QCheckBox::toggled, this, [this](bool on) {
        area_->Logarithmic = on;
        area_->update();
    });
    auto* automatic = new QPushButton("&Automatic");
    automatic->setObjectName("cmdAutomatic");
    automatic->setToolTip("Levels that show stars and noise");
    connect(automatic, &QPushButton::clicked, this, [this] {
        if (area_->Histogram.Pixels > 0) TakeLevels(LevelsFromHistogram(area_->Histogram), false);
    });
    area_->OnDragged = [this](const CountLevels& levels) { TakeLevels(levels, true); };
    auto* close = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(close, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* options = new QHBoxLayout;
    options->addWidget(transferLabel);
    options->addWidget(transfer_);
    options->addWidget(logarithmic_);
    options->addStretch();
    options->addWidget(automatic);
    options->addWidget(close);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(area_, 1);
    layout->addLayout(rows);
    layout->addLayout(options);
    resize(620, 380);
    WithoutDefaultButtons(*this);
}

LevelsWindow::LevelRow LevelsWindow::AddLevel(QGridLayout* layout, int row, const char* name,
                                              const QString& caption, double CountLevels::*level) {
    LevelRow added{new QSlider(Qt::Horizontal), new QSpinBox};
    added.Slider->setObjectName(QString("sld") + name);
    added.Slider->setAccessibleName(name);
    added.Slider->setRange(0, SliderSteps);
    added.Number->setObjectName(QString("num") + name);
    added.Number->setRange(-std::numeric_limits<int>::max(), std::numeric_limits<int>::max());
    added.Number->setMinimumWidth(fontMetrics().horizontalAdvance("-00000000000"));
    added.Number->setKeyboardTracking(false);
    added.Number->setLocale(QLocale::c());
    auto* label = new QLabel(caption);
    label->setBuddy(added.Number);
    connect(added.Slider, &QSlider::valueChanged, this, [this, level](int position) {
        CountLevels levels = Levels();
        levels.*level = SliderCount(area_->Span, position);
        TakeLevels(levels, true);
    });
    connect(added.Number, &QSpinBox::valueChanged, this, [this, level](int count) {
        CountLevels levels = Levels();
        levels.*level = count;
        TakeLevels(levels, false);
    });
    layout->addWidget(label, row, 0);
    layout->addWidget(added.Slider, row, 1);
    layout->addWidget(added.Number, row, 2);
    return added;
}

CountLevels LevelsWindow::Levels() const {
    return {double(state_.Image.DisplayBlack), double(state_.Image.DisplayWhite)};
}

void LevelsWindow::TakeLevels(const CountLevels& levels, bool keepsSpan) {
    if (!state_.ImageLoaded) return;
    SetLevels(state_, levels);
    if (!keepsSpan) area_->Span = HistogramSpan(area_->Histogram, Levels());
    ShowLevels();
    if (OnLevelsChanged) OnLevelsChanged();
}

void LevelsWindow::ShowLevels() {
    area_->Levels = Levels();
    const auto show = [this](const LevelRow& row, double count, std::int32_t number) {
        const QSignalBlocker noSlider(row.Slider);
        const QSignalBlocker noNumber(row.Number);
        row.Slider->setEnabled(state_.ImageLoaded);
        row.Number->setEnabled(state_.ImageLoaded);
        row.Slider->setValue(SliderPosition(area_->Span, count));
        row.Number->setValue(number);
    };
    show(black_, area_->Levels.Black, state_.Image.DisplayBlack);
    show(white_, area_->Levels.White, state_.Image.DisplayWhite);
    transfer_->setCurrentIndex(static_cast<int>(state_.DisplayTransfer));
    area_->update();
}

void LevelsWindow::ImageChanged() {
    if (!isVisible()) return;
    std::vector<std::int32_t> sample;
    if (state_.ImageLoaded) sample = SampleOf(state_.Image);
    // A search that begins tells of an image that has not changed yet, and must not yield there.
    if (sample != sample_) {
        sample_ = sample;
        area_->Histogram = {};
        ImageHistogram histogram;
        const auto make = [&] { histogram = MakeImageHistogram(state_.Image); };
        // A command that runs keeps the image as it is meanwhile.
        if (state_.ImageLoaded && state_.Running != Activity::None) WorkBeside(port_, make);
        if (state_.ImageLoaded && state_.Running == Activity::None) make();
        area_->Histogram = std::move(histogram);
    }
    if (state_.ImageLoaded) ChooseFirstLevels(state_, area_->Histogram);
    LevelsChanged();
}

void LevelsWindow::LevelsChanged() {
    if (!isVisible()) return;
    area_->Span = HistogramSpan(area_->Histogram, Levels());
    ShowLevels();
}

void LevelsWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
    if (state_.Running == Activity::None) ImageChanged();
}

}  // namespace vestrel
