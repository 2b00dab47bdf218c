// What the command line of `vestrel` asks for.
#pragma once

#include <string>
#include <vector>

namespace vestrel {

struct DesktopStart {
    enum class Kind {
        Interactive,  ///< just the window
        OpenImage,    ///< the window with an image: `Text` is its path
        Unattended,   ///< `Text` is a parameter string
        Complain,     ///< the window, and `Text` says what it was not given
        Print         ///< `Text` goes to stdout, and the program ends
    };
    Kind What = Kind::Interactive;
    std::string Text;
    std::string Notice = {};  ///< what was left out of an image to open
};

/// Reads the arguments, without the program's name. They are one text, as callers need not quote a
/// parameter string whose path has blanks in it.
DesktopStart ReadDesktopArguments(const std::vector<std::string>& arguments);

}  // namespace vestrel
