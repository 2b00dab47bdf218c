#pragma once

#include <QDialog>

class QTabWidget;
class QTextBrowser;

namespace vestrel {

/// A guide to the windows, and what the parameters mean. It blocks nothing.
class HelpWindow : public QDialog {
 public:
    HelpWindow();

    /// Shows what is said about a control or a window, by its name; the start without one.
    void ShowTopic(const QString& name);

 protected:
    void showEvent(QShowEvent* event) override;

 private:
    QTabWidget* pages_;
    QTextBrowser* guide_;
};

/// The guide as rich text. Names of controls and windows are its anchors.
QString HelpGuide();

}  // namespace vestrel
