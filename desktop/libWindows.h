// What the windows share: text conversion, themes, common controls, and the port to the user.
#pragma once

#include <QColor>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPalette>
#include <QString>
#include <QStringList>
#include <QWidget>
#include <array>
#include <functional>
#include <optional>
#include <string>

#include "program/mGeneral.h"
#include "program/mTrust.h"

class QDropEvent;
class QMimeData;
class QPainter;
class QTextEdit;

namespace vestrel {

QString QtText(const std::string& utf8);
/// A tool tip that shows a text as it is: Qt guesses whether a tool tip is markup.
QString PlainToolTip(const QString& text);
std::string Utf8(const QString& text);

/// The colours of all windows. The first theme is the system's.
struct Theme {
    const char* Name;  ///< name in the preferences
    const char* Caption;
};
inline constexpr std::array<Theme, 4> Themes{
    {{"", "Of the system"}, {"light", "Light"}, {"dark", "Dark"}, {"night", "Night (red)"}}};
/// The palette of a theme; nothing for the system's.
std::optional<QPalette> PaletteOf(const std::string& theme);
void ApplyTheme(const std::string& theme);
/// Whether the palette is the red one for dark-adapted eyes.
bool IsRedOnly(const QPalette& palette);
/// Lets nothing but red through what was painted.
void Redden(QPainter& painter, const QRect& place);

/// Tells the dock of the desktop how much of a long piece of work is done; the bar goes when all
/// is.
void ShowTaskbarProgress(int done, int total);

/// The colour of a status line, readable on the palette's background.
QColor StatusTextColour(StatusColour colour, const QPalette& palette);

/// The colour of a trust level's word, readable on the palette's background.
QColor TrustColour(TrustLevel level, const QPalette& palette);

/// The entries of a file dialog in Qt's form. "*.*" stands for every file.
QStringList NameFilters(const FileDialog& dialog);

/// Finds out whether a window can be opened. Qt ends the program when it cannot, so a child process
/// tries it. The child keeps its connection to the display until this object is destroyed, because
/// a display server may restart when its last client leaves and refuse the next one meanwhile.
class DisplayProbe {
 public:
    DisplayProbe(int argc, char** argv);
    ~DisplayProbe();
    DisplayProbe(const DisplayProbe&) = delete;
    DisplayProbe& operator=(const DisplayProbe&) = delete;
    bool CanOpenWindows() const { return canOpenWindows_; }

 private:
    bool canOpenWindows_ = true;
    int child_ = -1;
    int socket_ = -1;  ///< the child lives until this is closed
};

/// The text of a file's header: UTF-8, or Latin-1 when it is not valid UTF-8.
QString HeaderText(const std::string& bytes);

/// Leaves the Return key to the control with the focus: no button of the dialog is a default
/// button. Takes away the icons of buttons, which are black in every theme.
void WithoutDefaultButtons(QDialog& dialog);

/// Moves a window onto its screen, and reduces it to the screen's size if needed.
void KeepOnScreen(QWidget& window);

/// Shows a report as plain text. A line that is too long goes on under its value.
void ShowReport(QTextEdit& box, const QString& text);

/// The files that are dragged over a window.
QStringList DraggedFiles(const QMimeData* data);
/// Accepts dropped files as a copy, so that their source does not delete them.
void AcceptAsCopy(QDropEvent& event);

/// An input of one line. It leaves dropped files to the window, and Ctrl+E to its menu.
class InputBox : public QLineEdit {
 public:
    InputBox() { setAcceptDrops(false); }

 protected:
    bool event(QEvent* event) override;
};

/// A line of text that is shortened in its middle when it does not fit; its tool tip then shows the
/// whole text.
class ElidedLabel : public QLabel {
 public:
    ElidedLabel();

 protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
};

/// A wrapped text that a layout gives as much height as it needs.
class WholeLabel : public QLabel {
 public:
    WholeLabel();
    QSize sizeHint() const override { return OfText(QLabel::sizeHint()); }
    QSize minimumSizeHint() const override { return OfText(QLabel::minimumSizeHint()); }
    // Layouts that know of it keep the height of another width or of an earlier text.
    bool hasHeightForWidth() const override { return false; }

 protected:
    void resizeEvent(QResizeEvent* event) override;

 private:
    QSize OfText(const QSize& hint) const { return {hint.width(), heightForWidth(width())}; }
};

/// The port of the desktop program: message boxes and file dialogs over its main window.
class WindowPort : public Port {
 public:
    WindowPort(ProgramState& state, QWidget& window) : state_(state), window_(window) {}
    ~WindowPort() override;
    WindowPort(const WindowPort&) = delete;
    WindowPort& operator=(const WindowPort&) = delete;

    void ShowMessage(const std::string& text, const std::string& title) override;
    bool Confirm(const std::string& question, const std::string& title) override;
    std::optional<std::string> AskForFile(const FileDialog& dialog) override;
    void DisplayChanged() override { OnDisplayChanged(); }
    void ImageChanged() override { OnImageChanged(); }
    void ShowProgress(int percent) override { OnProgress(percent); }
    /// Runs pending events. When one of them yields again, that runs none, so commands cannot nest.
    void Yield() override;
    void ShowBusyPointer(bool busy) override;

    /// Whether a message waits until it is read.
    bool Waits = true;

    // The actions of the main window; all must be set.
    std::function<void()> OnDisplayChanged;
    std::function<void()> OnImageChanged;
    std::function<void(int)> OnProgress;

 private:
    /// The window in front, over which a dialog opens.
    QWidget* Front() const;

    ProgramState& state_;
    QWidget& window_;
    bool yielding_ = false;
    bool busyPointer_ = false;
};

}  // namespace vestrel
