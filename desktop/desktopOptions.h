// The command line of `vestrel`.
#pragma once

#include <string>
#include <vector>

namespace vestrel {

struct DesktopStart {
    enum class Kind {
        Interactive,  ///< only the window
        OpenImage,    ///< the window with an image: `Text` is its path
        Unattended,   ///< `Text` is a parameter string
        Complain,     ///< the window with a message, `Text`, about what was wrong
        Print         ///< `Text` goes to stdout, and the program ends
    };
    Kind What = Kind::Interactive;
    std::string Text;
    std::string Notice = {};  ///< a message about files that are not opened
};

/// Reads the arguments without the program's name. They are joined to one text, so callers need not
/// quote a parameter string whose path contains blanks.
DesktopStart ReadDesktopArguments(const std::vector<std::string>& arguments);

}  // namespace vestrel
