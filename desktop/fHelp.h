#pragma once

#include <QDialog>

class QLabel;
class QTabWidget;
class QTextBrowser;

namespace vestrel {

/// A guide to the windows, and the meaning of the parameters. It blocks no other window.
class HelpWindow : public QDialog {
 public:
    HelpWindow();

    /// Shows the help on a control, else on what contains it; the start of the guide when there is
    /// none.
    void ShowTopicOf(const QWidget* control);

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    QTabWidget* pages_;
    QTextBrowser* guide_;
    QLabel* parameters_;
};

/// The guide as rich text. Its anchors are the object names of controls and windows.
QString HelpGuide();

/// What is said on the control or window of this object name, as rich text; empty when nothing is.
QString HelpOn(const QString& name);

}  // namespace vestrel
