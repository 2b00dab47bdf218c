#include "desktop/fFITSHeader.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QFontDatabase>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QVBoxLayout>

#include "desktop/libWindows.h"
#include "image/libHeaderText.h"

namespace vestrel {

HeaderWindow::HeaderWindow(const ProgramState& state)
    : QDialog(nullptr, Qt::Window), state_(state), text_(new QPlainTextEdit) {
    setObjectName("fFITSHeader");
    setWindowTitle("Image Header");
    text_->setObjectName("textbox");
    text_->setAccessibleName("Image header");
    text_->viewport()->setObjectName("OuterPict");
    text_->horizontalScrollBar()->setObjectName("HBar");
    text_->verticalScrollBar()->setObjectName("VBar");
    text_->setReadOnly(true);
    text_->setTabChangesFocus(true);
    text_->setLineWrapMode(QPlainTextEdit::NoWrap);
    text_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    // The keyboard can scroll and select.
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    QPushButton* copy = buttons->addButton("&Copy", QDialogButtonBox::ActionRole);
    copy->setObjectName("cmdCopy");
    copy->setToolTip("Copy the whole header");
    connect(copy, &QPushButton::clicked, this,
            [this] { QApplication::clipboard()->setText(text_->toPlainText()); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(text_);
    layout->addWidget(buttons);
    resize(fontMetrics().averageCharWidth() * 110, 600);
    WithoutDefaultButtons(*this);
}

void HeaderWindow::ImageChanged() {
    if (!isVisible()) return;
    QString text;
    if (state_.ImageLoaded) {
        for (const std::string& line : HeaderLines(state_.Image)) text += HeaderText(line) + "\n";
    }
    // An unchanged text keeps its scroll position.
    if (text_->toPlainText() != text) text_->setPlainText(text);
}

void HeaderWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
    ImageChanged();
}

}  // namespace vestrel
