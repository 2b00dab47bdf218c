#include "desktop/desktopOptions.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "astro/libStrings.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr const char* help =
    "Finds where a photograph of the night sky points.\n"
    "\n"
    "Usage: vestrel [IMAGE | PARAMETERS]\n"
    "\n"
    "  vestrel                    opens the solve window\n"
    "  vestrel m44.fit            opens it with an image\n"
    "  vestrel 2.2704,0.3431,0.0349,0.0262,25,/pictures/m44.fit\n"
    "                             solves unattended: right ascension, declination, width and\n"
    "                             height (radians), region limit and path; writes a result file\n"
    "                             (.kel) beside the image, and closes after ten seconds; a\n"
    "                             message, as about an image that cannot be read, waits first\n"
    "\n"
    "Without a display an unattended solve runs without a window and ends at once. Its exit codes\n"
    "are those of vestrel-solve, which has more options and never waits.\n";

bool IsFile(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::is_regular_file(PathFromText(path), ignored);
}

}  // namespace

DesktopStart ReadDesktopArguments(const std::vector<std::string>& arguments) {
    std::string text;
    for (const std::string& argument : arguments) {
        text += (text.empty() ? "" : " ") + argument;
    }
    if (IsFile(text)) {
        // An absolute path, because its folder is shown and remembered.
        return {DesktopStart::Kind::OpenImage, TextFromPath(AbsolutePath(PathFromText(text)))};
    }
    if (arguments.size() > 1 && std::all_of(arguments.begin(), arguments.end(), IsFile)) {
        return {DesktopStart::Kind::OpenImage,
                TextFromPath(AbsolutePath(PathFromText(arguments.front()))),
                "One image is opened at a time: " + FileNameOfPath(arguments.front()) +
                    " is, the others are not."};
    }
    text = Trim(text);
    if (text.empty()) return {};
    if (text == "--help" || text == "-h") return {DesktopStart::Kind::Print, help};
    if (text == "--version") {
        return {DesktopStart::Kind::Print, std::string("vestrel ") + VESTREL_VERSION + "\n"};
    }
    // A parameter string has commas.
    if (text.find(',') == std::string::npos) {
        return {DesktopStart::Kind::Complain, "There is no image file " + text};
    }
    return {DesktopStart::Kind::Unattended, text};
}

}  // namespace vestrel
