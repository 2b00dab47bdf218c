#include "desktop/fResiduals.h"

#include <QDialogButtonBox>
#include <QEvent>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>
#include <algorithm>

#include "desktop/libGraph.h"
#include "desktop/libWindows.h"
#include "display/libReadout.h"
#include "display/libResiduals.h"
#include "program/mTrust.h"

namespace vestrel {

ResidualsWindow::ResidualsWindow(const ProgramState& state, QWidget* parent)
    : QDialog(parent, Qt::Window),
      state_(state),
      trust_(new QLabel),
      summary_(new QLabel),
      area_(new ResidualArea) {
    setObjectName("fResiduals");
    setWindowTitle("Residuals");
    trust_->setObjectName("lblTrustOfResiduals");
    trust_->setAccessibleName("How far the solution can be trusted");
    summary_->setObjectName("lblResiduals");
    summary_->setAccessibleName("The residuals in figures");
    for (QLabel* label : {trust_, summary_}) {
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
    }
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(trust_);
    layout->addWidget(summary_);
    layout->addWidget(area_, 1);
    layout->addWidget(buttons);
    resize(620, 640);
    WithoutDefaultButtons(*this);
}

void ResidualsWindow::SolutionChanged() {
    if (!isVisible()) return;
    const Trust trust = TrustOf(state_);
    QString text = WordOf(trust.Level);
    if (!trust.Why.empty()) text += ": " + QtText(trust.Why);
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText, TrustColour(trust.Level, palette()));
    trust_->setPalette(colours);
    trust_->setText(text);
    trust_->setVisible(!text.isEmpty());
    summary_->setText(QtText(ResidualSummary(state_)));
    area_->Residuals = ResidualsOf(state_);
    const ShownSize shown = ShownSizeOf(state_.Image);
    area_->ImageSize = {shown.Width, shown.Height};
    area_->View.SetImage(state_.Image);
    area_->update();
}

void ResidualsWindow::changeEvent(QEvent* event) {
    QDialog::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) SolutionChanged();
}

void ResidualsWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
    SolutionChanged();
}

}  // namespace vestrel
