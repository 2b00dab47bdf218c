#include "desktop/fRelPhot.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include "desktop/libWindows.h"

namespace vestrel {

RelativePhotometryWindow::RelativePhotometryWindow(ProgramState& state, Port& port, QWidget* parent)
    : QDialog(parent, Qt::Window),
      state_(state),
      port_(port),
      hint_(new QLabel),
      outcome_(new QLabel),
      rows_(new QTableWidget(0, static_cast<int>(PhotometryColumns.size()))),
      keep_(new QCheckBox("&Keep the first star")) {
    setObjectName("fRelPhot");
    setWindowTitle("Relative Photometry");
    hint_->setObjectName("lblHint");
    outcome_->setObjectName("lblOutcome");
    for (QLabel* label : {hint_, outcome_}) {
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
    }
    rows_->setObjectName("tblPhotometry");
    rows_->setAccessibleName("Magnitude differences");
    QStringList captions;
    for (const char* caption : PhotometryColumns) captions << caption;
    rows_->setHorizontalHeaderLabels(captions);
    rows_->setEditTriggers(QTableWidget::NoEditTriggers);
    rows_->setSelectionBehavior(QTableWidget::SelectRows);
    rows_->setWordWrap(false);
    rows_->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    rows_->horizontalHeader()->setSectionResizeMode(rows_->columnCount() - 1, QHeaderView::Stretch);
    rows_->verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 8);
    keep_->setObjectName("chkKeepFirst");
    keep_->setToolTip("Compare all following stars with the same one");
    connect(keep_, &QCheckBox::toggled, this, [this](bool on) {
        table_.KeepsFirst = on;
        if (!on) GiveFirstUp();
    });

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    export_ = buttons->addButton("&Export CSV...", QDialogButtonBox::ActionRole);
    export_->setObjectName("cmdExport");
    clear_ = buttons->addButton("C&lear", QDialogButtonBox::ActionRole);
    clear_->setObjectName("cmdClear");
    connect(export_, &QPushButton::clicked, this,
            [this] { ExportPhotometry(state_, port_, table_); });
    connect(clear_, &QPushButton::clicked, this, [this] {
        table_.Rows.clear();
        outcome_->clear();
        GiveFirstUp();
    });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(hint_);
    layout->addWidget(outcome_);
    layout->addWidget(rows_, 1);
    layout->addWidget(keep_);
    layout->addWidget(buttons);
    resize(fontMetrics().averageCharWidth() * 120, 340);
    WithoutDefaultButtons(*this);
    ShowTable();
}

void RelativePhotometryWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
}

void RelativePhotometryWindow::Take(const PixelPoint& pixel) {
    // While something runs, threads may be at work on the pixels.
    if (state_.Running != Activity::None) return;
    const std::size_t rowsBefore = table_.Rows.size();
    outcome_->setText(QtText(TakePhotometryStar(state_, table_, pixel)));
    ShowTable();
    if (!OnTaken) return;
    if (table_.Rows.size() > rowsBefore) {
        OnTaken({table_.Rows.back().First, table_.Rows.back().Second});
    } else if (table_.First) {
        OnTaken({table_.First->Star});
    }
}

void RelativePhotometryWindow::GiveFirstUp() {
    table_.First.reset();
    ShowTable();
    if (OnTaken) OnTaken({});
}

void RelativePhotometryWindow::ImageChanged() {
    // A difference is valid only within one image.
    GiveFirstUp();
}

void RelativePhotometryWindow::ShowTable() {
    hint_->setText(QtText(PhotometryHint(table_)));
    rows_->setRowCount(static_cast<int>(table_.Rows.size()));
    for (int i = 0; i < rows_->rowCount(); ++i) {
        int column = 0;
        for (const std::string& cell : PhotometryCells(table_.Rows[static_cast<std::size_t>(i)])) {
            auto* item = new QTableWidgetItem(QtText(cell));
            item->setToolTip(PlainToolTip(QtText(cell)));
            rows_->setItem(i, column++, item);
        }
    }
    rows_->scrollToBottom();
    export_->setEnabled(!table_.Rows.empty());
    clear_->setEnabled(!table_.Rows.empty() || table_.First.has_value());
}

}  // namespace vestrel
