// What the program's logic asks of whatever shows it: a window, a console or a test.
#pragma once

#include <optional>
#include <string>

namespace vestrel {

/// What a file dialog asks for.
struct FileDialog {
    std::string Title;
    std::string Filters;      ///< pairs of description and ";"-separated patterns, all split by "|"
    int FilterIndex = 1;      ///< the preselected pair, from 1; one that does not exist is ignored
    std::string InitialName;  ///< folder and pattern
    bool Saves = false;       ///< asks for a file to write, and before overwriting one
    std::string Suffix = ".fit";     ///< of a file to write when the user gives none
    std::string SuggestedName = {};  ///< of a file to write, without its folder
};

/// The one way from the program's logic to the user. Everything that is shown as text stands in
/// the program state; the port is told when to look.
class Port {
 public:
    virtual ~Port() = default;

    /// A message box: waits for the user where there is one to wait for.
    virtual void ShowMessage(const std::string& text, const std::string& title) = 0;
    /// A question whose answer may be no. Where nobody can be asked it is yes.
    virtual bool Confirm(const std::string& /*question*/, const std::string& /*title*/) {
        return true;
    }
    /// A file dialog. @return the chosen path (UTF-8); nothing when the user cancelled, or when
    /// there is no user to ask
    virtual std::optional<std::string> AskForFile(const FileDialog& dialog) = 0;
    /// The texts of the solve window have changed.
    virtual void DisplayChanged() = 0;
    /// The image, or what is drawn over it, has changed.
    virtual void ImageChanged() = 0;
    /// Progress of the present step, 0..100; 0 clears it.
    virtual void ShowProgress(int percent) = 0;
    /// Lets pending user-interface events run. The only place where a stop can be asked for.
    virtual void Yield() = 0;
    /// Shows or hides the busy (hourglass) pointer.
    virtual void ShowBusyPointer(bool busy) = 0;
};

}  // namespace vestrel
