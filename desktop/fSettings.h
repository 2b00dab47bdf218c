// The settings window: where the catalog, the telescope and the observer are, and how the windows
// look.
#pragma once

#include <QDialog>
#include <functional>

#include "program/mGeneral.h"

class QComboBox;
class QFormLayout;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace vestrel {

class SettingsWindow : public QDialog {
 public:
    SettingsWindow(ProgramState& state, Port& port, QWidget* parent);

    /// A setting has changed: what is kept of it is in the preferences.
    std::function<void()> OnChanged;
    /// The catalog is to be built; the window closes first.
    std::function<void()> OnBuildCatalog;

 private:
    QLineEdit* AddText(QFormLayout* layout, const char* name, const QString& caption,
                       const QString& hint, const char* preference,
                       const QList<QWidget*>& buttons = {});
    void OfferDevices(QLineEdit& address, QPushButton& button);
    void Keep(const char* preference, const QString& text);
    void ShowCatalog();

    ProgramState& state_;
    Port& port_;
    QComboBox* theme_;
    QPlainTextEdit* catalog_;
    QLabel* telescope_;
};

}  // namespace vestrel
