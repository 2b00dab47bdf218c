#include "program/mSettings.h"

#include <cmath>
#include <system_error>
#include <vector>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr const char* arcminutes = "arcminutes";
constexpr const char* degrees = "degrees";

void TakeSize(const std::string& text, double& field) {
    const auto value = ParseNumber(text);
    // A file that contains an infinity would be refused as a whole.
    if (value && std::isfinite(*value)) field = RoundToDecimals(*value, 2);
}

void EnsureFolderOf(const std::filesystem::path& file) {
    std::error_code ignored;
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path(), ignored);
}

}  // namespace

void LoadSettings(ProgramState& state, Port& port, const char* outOfDate) {
    const std::filesystem::path file = SettingsFilePath();
    // Only the first bytes are settings; the rest of a longer file is not read.
    std::vector<unsigned char> bytes(SettingsFileBytes);
    if (const FileHandle handle = OpenFile(file, "rb")) {
        bytes.resize(std::fread(bytes.data(), 1, bytes.size(), handle.get()));
    } else {
        bytes.clear();
        EnsureFolderOf(file);
        (void)OpenFile(file, "ab");
    }
    const SettingsRead result = DecodeSettings(bytes, state.Parameters);
    state.HaveConfig = result == SettingsRead::Good;
    if (result == SettingsRead::OutOfDate) port.ShowMessage(outOfDate, DefaultTitle);
}

void SetDefaultSettings(ProgramState& state) {
    state.Parameters = SolveParameters();
    state.Parameters.LastOpenFolder = TextFromPath(ProgramFolder());
    state.Parameters.LastSaveFolder = state.Parameters.LastOpenFolder;
}

bool SaveSettings(ProgramState& state) {
    if (state.Inputs.Units == arcminutes) state.Parameters.SizeUnit = 0;
    if (state.Inputs.Units == degrees) state.Parameters.SizeUnit = 1;
    TakeSize(state.Inputs.SizeX, state.Parameters.FieldWidth);
    TakeSize(state.Inputs.SizeY, state.Parameters.FieldHeight);
    const std::filesystem::path file = SettingsFilePath();
    EnsureFolderOf(file);
    return ReplaceFile(file, EncodeSettings(state.Parameters));
}

void InitSettings(ProgramState& state, Port& port, const char* outOfDate) {
    state.StopRequested = false;
    state.BackgroundRemoved = false;
    state.ImageLoaded = false;
    LoadSettings(state, port, outOfDate);
    if (!state.HaveConfig) SetDefaultSettings(state);
    state.Inputs.SizeX = RoundedText(state.Parameters.FieldWidth, 2);
    state.Inputs.SizeY = RoundedText(state.Parameters.FieldHeight, 2);
    if (state.Parameters.SizeUnit == 0) state.Inputs.Units = arcminutes;
    if (state.Parameters.SizeUnit == 1) state.Inputs.Units = degrees;
}

}  // namespace vestrel
