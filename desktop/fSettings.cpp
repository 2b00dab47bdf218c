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
      telescope_(new QLabel) {
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
        AddText(form, "txtTelescope", "T&elescope", "indi://localhost:7624/Telescope Simulator",
                "telescope", {devices, test});
    form->addRow({}, telescope_);
    AddText(form, "txtLongitude", "&Longitude, degrees east", "from the time zone", "longitude");
    theme_->setObjectName("cboTheme");
    for (const Theme& theme : Themes) theme_->addItem(theme.Caption, theme.Name);
    theme_->setCurrentIndex(qMax(0, theme_->findData(QtText(PreferenceOf(state, "theme")))));
    connect(theme_, &QComboBox::activated, this,
            [this](int index) { Keep("theme", theme_->itemData(index).toString()); });
    form->addRow("Co&lours", theme_);
    telescope_->setObjectName("lblTelescopeTest");
    telescope_->setTextFormat(Qt::PlainText);
    telescope_->setWordWrap(true);
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
    connect(test, &QPushButton::clicked, this, [this] {
        const QPointer<SettingsWindow> self = this;  // it may be closed meanwhile
        TestTelescopeCommand(state_, port_);
        if (self) telescope_->setText(QtText(state_.Display.Status.Text));
    });
    connect(devices, &QPushButton::clicked, this,
            [this, telescope, devices] { OfferDevices(*telescope, *devices); });
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    auto* build = buttons->addButton("&Build Catalog...", QDialogButtonBox::ActionRole);
    build->setObjectName("cmdBuildCatalog");
    build->setToolTip("Make a catalog, or its tables, from what other programs have installed");
    connect(build, &QPushButton::clicked, this, [this] {
        const auto buildCatalog = OnBuildCatalog;
        close();
        if (buildCatalog) buildCatalog();
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
    resize(fontMetrics().averageCharWidth() * 90, sizeHint().height());
    ShowCatalog();
}

QLineEdit* SettingsWindow::AddText(QFormLayout* layout, const char* name, const QString& caption,
                                   const QString& hint, const char* preference,
                                   const QList<QWidget*>& buttons) {
    auto* input = new QLineEdit(QtText(PreferenceOf(state_, preference)));
    input->setObjectName(name);
    input->setPlaceholderText(hint);
    input->setAccessibleName(QString(caption).remove('&'));
    connect(input, &QLineEdit::editingFinished, this,
            [this, input, preference] { Keep(preference, input->text()); });
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
        Keep("telescope", address.text());
    }
    const QPointer<SettingsWindow> self = this;  // it may be closed meanwhile
    const std::vector<std::string> names = TelescopeDevicesCommand(state_, port_);
    if (!self) return;
    telescope_->setText(QtText(state_.Display.Status.Text));
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
}

void SettingsWindow::ShowCatalog() {
    catalog_->setPlainText(QtText(CatalogFacts(state_)));
}

}  // namespace vestrel
