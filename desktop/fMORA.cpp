#include "desktop/fMORA.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QFontDatabase>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QStringList>
#include <QVBoxLayout>

#include "desktop/libWindows.h"

namespace vestrel {

QuadMessagesWindow::QuadMessagesWindow(const ProgramState& state)
    : QDialog(nullptr, Qt::Window), state_(state), list_(new QPlainTextEdit) {
    setObjectName("fMORA");
    setWindowTitle("MORA");
    // It opens during a search without taking the focus, so that Escape in the solve window stops
    // the search.
    setAttribute(Qt::WA_ShowWithoutActivating);
    list_->setObjectName("ListMORA");
    list_->setAccessibleName("Messages of the quad search");
    list_->setReadOnly(true);
    list_->setUndoRedoEnabled(false);
    list_->setTabChangesFocus(true);
    list_->setLineWrapMode(QPlainTextEdit::NoWrap);
    list_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    list_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    list_->setPlaceholderText("What a MORA search finds is told here.");
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    QPushButton* copy = buttons->addButton("&Copy", QDialogButtonBox::ActionRole);
    copy->setObjectName("cmdCopy");
    copy->setToolTip("Copy all messages");
    connect(copy, &QPushButton::clicked, this,
            [this] { QApplication::clipboard()->setText(list_->toPlainText()); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(list_);
    layout->addWidget(buttons);
    resize(fontMetrics().averageCharWidth() * 90, 400);
    WithoutDefaultButtons(*this);
}

void QuadMessagesWindow::MessagesChanged() {
    if (!isVisible()) return;
    const std::vector<std::string>& messages = state_.QuadMatch.Messages;
    if (messages.size() < shown_) {
        list_->clear();
        shown_ = 0;
    }
    if (messages.size() == shown_) return;
    // Appends only new lines, in one piece, because there may be thousands.
    QStringList lines;
    for (; shown_ < messages.size(); ++shown_) lines << QtText(messages[shown_]);
    list_->appendPlainText(lines.join('\n'));
}

void QuadMessagesWindow::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    KeepOnScreen(*this);
    // Another search may have run meanwhile.
    list_->clear();
    shown_ = 0;
    MessagesChanged();
}

}  // namespace vestrel
