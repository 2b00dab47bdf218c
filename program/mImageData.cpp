#include "program/mImageData.h"

#include <algorithm>
#include <string_view>

#include "astro/libStrings.h"
#include "image/libFITS.h"
#include "image/libFitsWriter.h"
#include "image/libPicture.h"
#include "image/libSBIG.h"
#include "platform/libPlatform.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"

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
    if (extension == "SBIG" || extension == "SBI") return "SBIG";
    return {};
}

std::size_t CharacterCount(std::string_view utf8) {
    return static_cast<std::size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

/// What was found in the last image says nothing about the next.
void ForgetStars(ProgramState& state) {
    state.PlateStarCount = 0;
    state.CatalogStarCount = 0;
    state.MatchedPositions.clear();
    state.ZeroPointValid = false;
    state.Display.SolutionOverlays = false;
}

bool ReadImage(ProgramState& state, Port& port, const std::string& type, const std::string& path) {
    const StageTimer timer(state.Report.Times.Reading);
    ReadFailure failure;
    const Progress progress = ShownProgress(port);
    const std::filesystem::path file = PathFromText(path);
    const bool good = type == "FITS"   ? ReadFitsFile(file, state.Image, progress, failure)
                      : type == "SBIG" ? ReadSbigFile(file, state.Image, progress, failure)
                                       : ReadPictureFile(file, state.Image, progress, failure);
    port.ShowProgress(0);
    if (!good && !failure.Cause.empty()) {
        state.Display.Details = "  Cause             " + WithoutControls(failure.Cause) + "\n";
    }
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
    // The open dialog offers BMP files all the same.
    if (type != "SBIG" && type != "FITS" && type != "JPEG") {
        port.ShowMessage("File type is not supported", DefaultTitle);
        return false;
    }

    ShowStatus(state, port, "Loading Image");
    state.ImageLoaded = false;
    state.BackgroundRemoved = false;
    state.Report = {};
    ForgetStars(state);
    const bool read = ReadImage(state, port, type, path);
    ShowStatus(state, port, "Ready");
    if (!read) return false;
    state.Parameters.LastOpenFolder = folder;
    if (!state.HaveConfig) state.Parameters.LastSaveFolder = folder;
    state.Image.ImageType = type;
    state.Image.FileName = path;
    state.ImageLoaded = true;
    state.Display.ImageSize =
        std::to_string(state.Image.Width) + " X " + std::to_string(state.Image.Height);
    port.DisplayChanged();
    port.ImageChanged();
    return true;
}

bool OpenChosenImage(ProgramState& state, Port& port, const std::string& path) {
    ImageHeader previous = state.Image.Header;
    ClearHeader(state.Image.Header);
    const bool opened = OpenImage(state, port, path);
    // Refused by its extension: the image that stays keeps its header, or it could not be saved.
    if (!opened && state.ImageLoaded) state.Image.Header = std::move(previous);
    return opened;
}

void OpenImageDialog(ProgramState& state, Port& port) {
    const std::optional<std::string> path = port.AskForFile(
        {"Open Image",
         "JPG Files (*.jpg)|*.jpg|BMP Files (*.bmp)|*.bmp|SBIG Files (*.SBIG)|*.SBIG;*.SBI|"
         "FITS Files (*.FIT, *.FITS, *.FTS)|*.fit;*.fits;*.fts|All Files (*.*)|*.*",
         4, state.Parameters.LastOpenFolder + "\\*.*", false});
    if (path) OpenChosenImage(state, port, *path);
}

bool SaveImage(const ProgramState& state, Port& port, const std::string& path) {
    if (!state.ImageLoaded) {
        port.ShowMessage("There is no image to save.", DefaultTitle);
        return false;
    }
    try {
        WriteFitsFile(PathFromText(path), state.Image, [&port](int, int) { port.Yield(); });
        return true;
    } catch (const std::exception& error) {
        port.ShowMessage(error.what(), DefaultTitle);
        return false;
    }
}

void SaveImageDialog(ProgramState& state, Port& port) {
    const std::optional<std::string> path =
        port.AskForFile({"Save Image As",
                         "FITS Files (*.FIT, *.FITS, *.FTS)|*.fit;*.fits;*.fts|All Files(*.*)|*.*|",
                         4, state.Parameters.LastSaveFolder + "\\*.*", true});
    if (!path) return;
    state.Parameters.LastSaveFolder = FolderOfPath(*path);
    SaveImage(state, port, *path);
}

}  // namespace vestrel
