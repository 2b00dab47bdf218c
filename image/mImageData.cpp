#include "image/mImageData.h"

#include <algorithm>
#include <string_view>

#include "app/mStopwatch.h"
#include "astro/libStrings.h"
#include "extraction/mStarExtraction.h"
#include "image/libFITS.h"
#include "image/libPicture.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

/// The image type that an extension stands for; empty when it stands for none.
std::string TypeOfFile(std::string_view path) {
    const std::size_t dot = path.rfind('.');
    const std::string extension =
        dot == std::string_view::npos ? "" : UpperCase(path.substr(dot + 1));
    // The misspelt form has been accepted for so long that callers rely on it.
    if (extension == "JPG" || extension == "JEPG") return "JPEG";
    if (extension == "BMP") return "BMP";
    if (extension == "FIT" || extension == "FITS" || extension == "FTS") return "FITS";
    return {};
}

std::size_t CharacterCount(std::string_view utf8) {
    return static_cast<std::size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

bool ReadImage(ProgramState& state, Port& port, const std::string& type, const std::string& path) {
    const StageTimer timer(state.Report.Times.Reading);
    ReadFailure failure;
    const Progress progress = ShownProgress(port);
    const bool good = type == "FITS"
                          ? ReadFitsFile(PathFromText(path), state.Image, progress, failure)
                          : ReadPictureFile(PathFromText(path), state.Image, progress, failure);
    port.ShowProgress(0);
    if (!good && !failure.Text.empty()) port.ShowMessage(failure.Text, failure.Title);
    return good;
}

}  // namespace

std::string ShortenedPath(const std::string& path) {
    constexpr std::size_t tooLong = 51;
    std::string text = "\\" + std::string(Trim(path));
    while (CharacterCount(text) >= tooLong) {
        const std::size_t next = text.find_first_of("\\/", 1);
        if (next == std::string::npos) return {};
        text = Trim(std::string_view(text).substr(next + 1));
    }
    return text;
}

bool OpenImage(ProgramState& state, Port& port, const std::string& path) {
    const std::string folder = FolderOfPath(path);
    state.Parameters.LastOpenFolder = folder;
    state.Display.ImageName = ShortenedPath(path);
    port.DisplayChanged();
    const std::string type = TypeOfFile(path);
    if (type != "FITS" && type != "JPEG") {
        port.ShowMessage("File type is not supported", DefaultTitle);
        return false;
    }

    ShowStatus(state, port, "Loading Image");
    state.ImageLoaded = false;
    state.BackgroundRemoved = false;
    state.Report = {};
    if (!ReadImage(state, port, type, path)) return false;
    state.Parameters.LastOpenFolder = folder;
    if (!state.HaveConfig) state.Parameters.LastSaveFolder = folder;
    state.Image.ImageType = type;
    state.Image.FileName = path;
    state.ImageLoaded = true;
    state.Display.ImageSize =
        std::to_string(state.Image.Width) + " X " + std::to_string(state.Image.Height);
    ShowStatus(state, port, "Ready");
    port.ImageChanged();
    return true;
}

}  // namespace vestrel
