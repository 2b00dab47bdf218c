#include "desktop/fSettings.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

#include "desktop/libWindows.h"
#include "platform/libPlatform.h"
#include "program/mCatalogFacts.h"
#include "program/mPreferences.h"
#include "program/mTelescope.h"

namespace vestrel {

SettingsWindow::SettingsWindow(ProgramState& state, Port& port, QWidget* parent)
    : QDialog(parent),
      state_(state),
      port_(port),
      theme_(new QComboBox),
      catalog_(new QPlainTextEdit),
      telescope_(new QLabel),
      fault_(new QLabel) {
    setObjectName("fSettings");
    setWindowTitle("Settings");
    auto* form = new QFormLayout;
    auto* choose = new QPushButton("&Choose...");
    choose->setObjectName("cmdChooseCatalog");
    auto* devices = new QPushButton("&Devices");
    devices->setObjectName("cmdTelescopeDevices");
    devices->setToolTip("Ask the server which devices it has");
    auto* test = new QPushButton("&Test");
    test->setObjectName("cmdTestTelescope");
    test->setToolTip("Connect, and ask where the telescope points");
    QLineEdit* folder = AddText(form, "txtCatalogFolder", "Catalog &folder",
                                QtText(TextFromPath(state.Catalog.Folder)), "catalog", {choose});
    QLineEdit* telescope =
        AddText(form, "txtTelescope", "Tele&scope", "indi://localhost:7624/Telescope Simulator",
                "telescope", {devices, test});
    form->addRow({}, telescope_);
    longitude_ = AddText(form, "txtLongitude", "&Longitude, degrees east", "from the time zone",
                         "longitude");
    fault_->setObjectName("lblLongitudeFault");
    fault_->setTextFormat(Qt::PlainText);
    form->addRow({}, fault_);
    // What is right again is seen at once; what is wrong, when it is complete.
    connect(longitude_, &QLineEdit::textChanged, this, [this] {
        if (Fault() == nullptr) ShowFault();
    });
    theme_->setObjectName("cboTheme");
    for (const Theme& theme : Themes) theme_->addItem(theme.Caption, theme.Name);
    theme_->setCurrentIndex(qMax(0, theme_->findData(QtText(PreferenceOf(state, "theme")))));
    connect(theme_, &QComboBox::activated, this,
            [this](int index) { Keep("theme", theme_->itemData(index).toString()); });
    form->addRow("Colo&urs", theme_);
    telescope_->setObjectName("lblTelescopeTest");
    telescope_->setTextFormat(Qt::PlainText);
    telescope_->setWordWrap(true);
    telescope_->hide();
    catalog_->setObjectName("txtCatalogFacts");
    catalog_->setAccessibleName("What the catalog holds");
    catalog_->setReadOnly(true);
    catalog_->setTabChangesFocus(true);
    catalog_->setMinimumHeight(fontMetrics().lineSpacing() * 6);
    connect(choose, &QPushButton::clicked, this, [this, folder] {
        const QString chosen =
            QFileDialog::getExistingDirectory(this, "Catalog Folder", folder->text());
        if (chosen.isEmpty()) return;
        folder->setText(chosen);
        Keep("catalog", chosen);
    });
    connect(test, &QPushButton::clicked, this, [this, telescope] {
        Keep("telescope", telescope->text());        // by its key, the input keeps the keyboard
        const QPointer<SettingsWindow> self = this;  // it may be closed meanwhile
        TestTelescopeCommand(state_, port_);
        if (self) ShowTelescope();
    });
    connect(devices, &QPushButton::clicked, this,
            [this, telescope, devices] { OfferDevices(*telescope, *devices); });
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    auto* build = buttons->addButton("&Build Catalog...", QDialogButtonBox::ActionRole);
    build->setObjectName("cmdBuildCatalog");
    build->setToolTip("Make a catalog, or its tables, from what other programs have installed");
    connect(build, &QPushButton::clicked, this, [this] {
        const auto buildCatalog = OnBuildCatalog;
        if (close() && buildCatalog) buildCatalog();
    });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(catalog_);
    layout->addWidget(buttons);
    WithoutDefaultButtons(*this);
    // The box would leave out a button of its own.
    setTabOrder(catalog_, build);
    setTabOrder(build, buttons->button(QDialogButtonBox::Close));
    resize(fontMetrics().averageCharWidth() * 110, sizeHint().height());
    ShowCatalog();
    ShowFault();
}

void SettingsWindow::done(int result) {
    if (const char* fault = Fault()) {
        port_.ShowMessage(fault, ErrorTitle);
        longitude_->setFocus();
        longitude_->selectAll();
        return;
    }
    // The Escape key leaves an input without a word.
    for (const auto& [input, preference] : inputs_) Keep(preference, input->text());
    QDialog::done(result);
}

const char* SettingsWindow::Fault() const {
    return FaultOfLongitude(Utf8(longitude_->text().trimmed()));
}

void SettingsWindow::ShowFault() {
    const char* fault = Fault();
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText, StatusTextColour(StatusColour::Red, palette()));
    fault_->setPalette(colours);
    fault_->setText(fault);
    fault_->setVisible(fault != nullptr);
}

void SettingsWindow::ShowTelescope() {
    telescope_->setText(QtText(state_.Display.Status.Text));
    telescope_->setVisible(!telescope_->text().isEmpty());
}

QLineEdit* SettingsWindow::AddText(QFormLayout* layout, const char* name, const QString& caption,
                                   const QString& hint, const char* preference,
                                   const QList<QWidget*>& buttons) {
    auto* input = new QLineEdit(QtText(PreferenceOf(state_, preference)));
    input->setObjectName(name);
    input->setPlaceholderText(hint);
    input->setAccessibleName(QString(caption).remove('&'));
    inputs_.emplace_back(input, preference);
    connect(input, &QLineEdit::editingFinished, this, [this, input, preference] {
        ShowFault();
        if (input != longitude_ || Fault() == nullptr) Keep(preference, input->text());
    });
    auto* label = new QLabel(caption);
    label->setBuddy(input);
    auto* row = new QHBoxLayout;
    row->addWidget(input, 1);
    for (QWidget* button : buttons) row->addWidget(button);
    layout->addRow(label, row);
    return input;
}

void SettingsWindow::OfferDevices(QLineEdit& address, QPushButton& button) {
    if (address.text().trimmed().isEmpty()) {
        address.setText("indi://localhost:7624/");
    }
    Keep("telescope", address.text());
    const QPointer<SettingsWindow> self = this;  // it may be closed meanwhile
    const std::vector<std::string> names = TelescopeDevicesCommand(state_, port_);
    if (!self) return;
    ShowTelescope();
    if (names.empty()) return;
    auto* menu = new QMenu(this);
    menu->setObjectName("mnuDevices");
    menu->setAttribute(Qt::WA_DeleteOnClose);
    for (const std::string& name : names) {
        connect(menu->addAction(QtText(name).replace('&', "&&")), &QAction::triggered, this,
                [this, name, input = &address] {
                    input->setText(QtText(AddressOfDevice(Utf8(input->text().trimmed()), name)));
                    Keep("telescope", input->text());
                });
    }
    menu->popup(button.mapToGlobal(QPoint(0, button.height())));
}

void SettingsWindow::Keep(const char* preference, const QString& text) {
    const std::string value = Utf8(text.trimmed());
    if (PreferenceOf(state_, preference) == value) return;
    SetPreference(state_, preference, value);
    if (OnChanged) OnChanged();
    ShowCatalog();
    ShowFault();  // in the colours of the theme
}

void SettingsWindow::ShowCatalog() {
    catalog_->setPlainText(QtText(CatalogFacts(state_)));
}

}  // namespace vestrel
