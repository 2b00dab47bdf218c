// The settings window: catalog, telescope, observer's longitude, and the look of the windows.
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

    /// Called when a setting has changed and is in the preferences.
    std::function<void()> OnChanged;
    /// Called when the user wants to build the catalog; this window closes first.
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
