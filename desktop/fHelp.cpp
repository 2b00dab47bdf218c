#include "desktop/fHelp.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QScrollArea>
#include <QVBoxLayout>

#include "desktop/libWindows.h"
#include "program/mParameterTexts.h"

namespace vestrel {

HelpWindow::HelpWindow() : QDialog(nullptr, Qt::Window) {
    setObjectName("fHelp");
    setWindowTitle("Vestrel Help");
    auto* label = new QLabel(QtText(ParameterHelpText()));
    label->setObjectName("lblHelp");
    label->setTextFormat(Qt::PlainText);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setWordWrap(true);
    label->setMargin(12);
    label->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    auto* scroll = new QScrollArea;
    scroll->setWidget(label);
    scroll->setWidgetResizable(true);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(scroll);
    layout->addWidget(buttons);
    resize(620, 560);
}

}  // namespace vestrel
