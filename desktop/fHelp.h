#pragma once

#include <QDialog>

class QTabWidget;
class QTextBrowser;

namespace vestrel {

/// A guide to the windows, and the meaning of the parameters. It blocks no other window.
class HelpWindow : public QDialog {
 public:
    HelpWindow();

    /// Shows the help on a control or a window with this object name; the start of the guide when
    /// there is none.
    void ShowTopic(const QString& name);

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    QTabWidget* pages_;
    QTextBrowser* guide_;
};

/// The guide as rich text. Its anchors are the object names of controls and windows.
QString HelpGuide();

}  // namespace vestrel
