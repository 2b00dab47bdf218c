// The settings window: catalog, telescope, observer's longitude, and the look of the windows.
#pragma once

#include <QDialog>
#include <functional>
#include <utility>
#include <vector>

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

    /// Closes the window, unless an input is not valid: then tells so and stays.
    void done(int result) override;

 private:
    QLineEdit* AddText(QFormLayout* layout, const char* name, const QString& caption,
                       const QString& hint, const char* preference,
                       const QList<QWidget*>& buttons = {});
    void OfferDevices(QLineEdit& address, QPushButton& button);
    void Keep(const char* preference, const QString& text);
    void ShowCatalog();
    /// What is wrong with the longitude, as it is typed.
    const char* Fault() const;
    void ShowFault();
    void ShowTelescope();

    ProgramState& state_;
    Port& port_;
    QComboBox* theme_;
    QPlainTextEdit* catalog_;
    QLabel* telescope_;
    std::vector<std::pair<QLineEdit*, const char*>> inputs_;  ///< with their preferences
    QLineEdit* longitude_ = nullptr;
    QLabel* fault_;  ///< of the longitude
};

}  // namespace vestrel
