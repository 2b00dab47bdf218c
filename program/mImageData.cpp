#include "program/mImageData.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "astro/libStrings.h"
#include "image/libFitsWriter.h"
#include "image/libFormats.h"
#include "platform/libConsole.h"
#include "platform/libPlatform.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"
#include "program/mWorkBeside.h"

namespace vestrel {

namespace {

std::size_t CharacterCount(std::string_view utf8) {
    return static_cast<std::size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

constexpr std::string_view causeLabel = "  Cause             ";

/// The details of a solution stay as long as its image does.
void ShowCause(ProgramState& state, const std::string& cause) {
    if (state.Solution) return;
    state.Display.Details.clear();
    if (!cause.empty()) {
        state.Display.Details = std::string(causeLabel) + WithoutControls(cause) + "\n";
    }
}

/// Reads a file into `image`, and shows why when that fails.
bool ReadImage(ProgramState& state, Port& port, const std::string& path, PlateImage& image,
               double& seconds) {
    ShowStatus(state, port, "Loading Image");
    ReadFailure failure;
    bool good = false;
    {
        const StageTimer timer(seconds);
        good = ReadImageFile(PathFromText(path), image, ShownProgress(port), failure,
                             state.DecodesApart);
    }
    port.ShowProgress(0);
    if (!good) ShowCause(state, failure.Cause);
    if (!good && !failure.Text.empty()) port.ShowMessage(failure.Text, failure.Title);
    ShowStatus(state, port, "Ready");
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
    // When the extension does not name a known format, the loaded image stays until the file has
    // been read.
    const bool vouched = OwnFormatOfName(path) != nullptr;
    if (!vouched && FormatsOfFile(PathFromText(path)).empty()) {
        ShowCause(state, RefusalCauseOf(PathFromText(path)));
        port.ShowMessage("File type is not supported", DefaultTitle);
        return false;
    }
    PlateImage candidate;
    double reading = 0;
    if (!vouched && !ReadImage(state, port, path, candidate, reading)) return false;
    ForgetImage(state);
    if (vouched && !ReadImage(state, port, path, state.Image, reading)) {
        port.ImageChanged();  // to show that there is no image
        return false;
    }
    if (!vouched) state.Image = std::move(candidate);
    state.Report.Times.Reading = reading;
    state.Parameters.LastOpenFolder = folder;
    if (!state.HaveConfig) state.Parameters.LastSaveFolder = folder;
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
    // The file was refused by its extension: the loaded image needs its header back, or it could
    // not be saved.
    if (!opened && state.ImageLoaded) state.Image.Header = std::move(previous);
    if (!opened && !state.ImageLoaded) state.Display.ImageName.clear();
    return opened;
}

bool OpenImageDialog(ProgramState& state, Port& port) {
    const std::optional<std::string> path = port.AskForFile(
        {"Open Image",
         "JPG Files (*.jpg)|*.jpg|BMP Files (*.bmp)|*.bmp|SBIG Files (*.SBIG)|*.SBIG;*.SBI|"
         "FITS Files (*.FIT, *.FITS, *.FTS)|*.fit;*.fits;*.fts|All Files (*.*)|*.*",
         4, state.Parameters.LastOpenFolder + "\\*.*", false});
    return path && OpenChosenImage(state, port, *path);
}

bool SaveImage(ProgramState& state, Port& port, const std::string& path) {
    if (!state.ImageLoaded) {
        port.ShowMessage("There is no image to save.", DefaultTitle);
        return false;
    }
    try {
        const std::filesystem::path file = PathFromText(path);
        const std::filesystem::path own = PathFromText(state.Image.FileName);
        WorkBeside(port, [&] { WriteFitsFile(file, state.Image, nullptr); });
        // Its own file holds this image further on.
        std::error_code ignored;
        if (std::filesystem::equivalent(file, own, ignored)) state.Image.Stamp = StampOfFile(own);
        return true;
    } catch (const std::exception& error) {
        port.ShowMessage(error.what(), DefaultTitle);
        return false;
    }
}

std::string CauseOfRefusal(const ProgramState& state) {
    const std::string& details = state.Display.Details;
    if (!details.starts_with(causeLabel)) return {};
    return details.substr(causeLabel.size(), details.find('\n') - causeLabel.size());
}

void SaveImageDialog(ProgramState& state, Port& port) {
    const std::optional<std::string> path =
        port.AskForFile({"Save Image As",
                         "FITS Files (*.FIT, *.FITS, *.FTS)|*.fit;*.fits;*.fts|All Files(*.*)|*.*|",
                         4, state.Parameters.LastSaveFolder + "\\*.*", true});
    if (!path) return;
    state.Parameters.LastSaveFolder = FolderOfPath(*path);
    if (SaveImage(state, port, *path)) ShowStatus(state, port, "Saved " + FileNameOfPath(*path));
}

}  // namespace vestrel
