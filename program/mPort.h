// The interface from the program's logic to the user: a window, a console or a test.
#pragma once

#include <optional>
#include <string>

namespace vestrel {

/// What a file dialog asks for.
struct FileDialog {
    std::string Title;
    std::string Filters;      ///< pairs of description and ";"-separated patterns, all split by "|"
    int FilterIndex = 1;      ///< the preselected pair, from 1; ignored when it does not exist
    std::string InitialName;  ///< folder and pattern
    bool Saves = false;       ///< asks for a file to write, and for consent before overwriting one
    std::string Suffix = ".fit";     ///< of a file to write, when the user gives no suffix
    std::string SuggestedName = {};  ///< of a file to write, without folder
};

/// The only way from the program's logic to the user. All text that is shown stands in the program
/// state; the port is told when it has changed.
class Port {
 public:
    virtual ~Port() = default;

    /// A message box. Waits for the user, if there is one.
    virtual void ShowMessage(const std::string& text, const std::string& title) = 0;
    /// Asks the user a question. The answer is yes when there is nobody to ask.
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
    /// Lets pending user-interface events run. Only here can the user request a stop.
    virtual void Yield() = 0;
    /// Shows or hides the busy (hourglass) pointer.
    virtual void ShowBusyPointer(bool busy) = 0;
};

}  // namespace vestrel
