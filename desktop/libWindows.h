// What the windows share: texts to and from Qt, and the port to the user in front of the screen.
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

namespace vestrel {

QString QtText(const std::string& utf8);
std::string Utf8(const QString& text);

/// The colours of all windows. The first theme is the system's.
struct Theme {
    const char* Name;  ///< as kept between runs
    const char* Caption;
};
inline constexpr std::array<Theme, 4> Themes{
    {{"", "Of the system"}, {"light", "Light"}, {"dark", "Dark"}, {"night", "Night (red)"}}};
/// The palette of a theme; nothing for the system's.
std::optional<QPalette> PaletteOf(const std::string& theme);
void ApplyTheme(const std::string& theme);
/// Whether everything is to be red, for eyes that are used to the dark.
bool IsRedOnly(const QPalette& palette);
/// Lets nothing but red through what was painted.
void Redden(QPainter& painter, const QRect& place);

/// Tells the dock of the desktop how much of a long piece of work is done; the bar goes when all
/// is.
void ShowTaskbarProgress(int done, int total);

/// The colour of a status line, readable on the palette's background.
QColor StatusTextColour(StatusColour colour, const QPalette& palette);

/// The colour of a word about trust, readable on the palette's background.
QColor TrustColour(TrustLevel level, const QPalette& palette);

/// The entries of a file dialog in Qt's form. "*.*" stands for every file.
QStringList NameFilters(const FileDialog& dialog);

/// Finds out whether a window can be opened at all. Qt ends the program when it cannot, so this is
/// tried in a process of its own. It keeps its connection to the display until the object goes:
/// display servers may restart when the last program leaves, and refuse the next one meanwhile.
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

/// Text of a file's header: UTF-8, or Latin-1 where it is not.
QString HeaderText(const std::string& bytes);

/// Return is for the control that has the focus: no button of the dialog takes it.
void WithoutDefaultButtons(QDialog& dialog);

/// Makes a window no larger than its screen, and moves it there.
void KeepOnScreen(QWidget& window);

/// The files that are dragged over a window; the first is opened.
QStringList DraggedFiles(const QMimeData* data);
/// Accepts files that are dropped: they stay where they are.
void AcceptAsCopy(QDropEvent& event);

/// An input of one line. Files that are dropped are for the window, and Ctrl+E for its menu.
class InputBox : public QLineEdit {
 public:
    InputBox() { setAcceptDrops(false); }

 protected:
    bool event(QEvent* event) override;
};

/// A line of text that is cut in its middle when it does not fit, and is whole in its tool tip
/// then.
class ElidedLabel : public QLabel {
 public:
    ElidedLabel();

 protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
};

/// The program as windows: message boxes and file dialogs over its main window.
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
    /// Runs pending events. An event that yields again, from inside this, runs none: what was
    /// started first is always ended last.
    void Yield() override;
    void ShowBusyPointer(bool busy) override;

    // What the main window does about it; all are to be set.
    std::function<void()> OnDisplayChanged;
    std::function<void()> OnImageChanged;
    std::function<void(int)> OnProgress;

 private:
    ProgramState& state_;
    QWidget& window_;
    bool yielding_ = false;
    bool busyPointer_ = false;
};

}  // namespace vestrel
