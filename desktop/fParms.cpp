#include "desktop/fParms.h"

#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <utility>

#include "desktop/libWindows.h"

namespace vestrel {

ParametersWindow::ParametersWindow(ProgramState& state, Port& port, std::function<void()> showHelp,
                                   QWidget* parent)
    : QDialog(parent), state_(state), port_(port) {
    setObjectName("fParms");
    setWindowTitle("Edit Parameters");
    auto* grid = new QGridLayout;
    for (std::size_t i = 0; i < boxes_.size(); ++i) {
        const ParameterBox& about = ParameterBoxes[i];
        const int row = static_cast<int>(i);
        auto* box = new QLineEdit;
        box->setObjectName(about.Name);
        box->setAlignment(Qt::AlignRight);
        auto* caption = new QLabel(about.Caption);
        caption->setBuddy(box);
        grid->addWidget(caption, row, 0);
        grid->addWidget(box, row, 1);
        grid->addWidget(new QLabel(about.Unit), row, 2);
        boxes_[i] = box;
    }
    auto* buttons = new QDialogButtonBox;
    const auto add = [buttons](const char* name, const QString& text,
                               QDialogButtonBox::ButtonRole role) {
        QPushButton* button = buttons->addButton(text, role);
        button->setObjectName(name);
        button->setAutoDefault(false);
        return button;
    };
    QPushButton* ok = add("cmdOK", "OK", QDialogButtonBox::AcceptRole);
    add("cmdCancel", "Cancel", QDialogButtonBox::RejectRole);
    QPushButton* defaults = add("cmdDefault", "&Default Values", QDialogButtonBox::ResetRole);
    QPushButton* help = add("cmdHelp", "&Help", QDialogButtonBox::HelpRole);
    connect(buttons, &QDialogButtonBox::accepted, this, [this] { Ok(); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(defaults, &QPushButton::clicked, this, [this] { ShowTexts(DefaultParameterTexts()); });
    connect(help, &QPushButton::clicked, this, std::move(showHelp));
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(grid);
    layout->addWidget(buttons);
    ok->setDefault(true);
    ShowTexts(TextsOfParameters(state_.Parameters));
}

void ParametersWindow::ShowTexts(const ParameterTexts& texts) {
    for (std::size_t i = 0; i < boxes_.size(); ++i) boxes_[i]->setText(QtText(texts[i]));
}

void ParametersWindow::Ok() {
    ParameterTexts texts;
    for (std::size_t i = 0; i < boxes_.size(); ++i) texts[i] = Utf8(boxes_[i]->text());
    const auto refused = StoreParameterTexts(state_, port_, texts);
    if (!refused) {
        accept();
        return;
    }
    boxes_[*refused]->setFocus();
    boxes_[*refused]->selectAll();
}

}  // namespace vestrel
