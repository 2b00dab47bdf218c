// The settings file: decoded, encoded again, and taken at start-up.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "astro/libStrings.h"
#include "fuzz/fuzzSupport.h"
#include "program/mSettings.h"
#include "settings/libSettingsFile.h"

namespace vestrel {
namespace {

constexpr std::size_t numberBytes = SettingsFileBytes - 2 * 255;

void CheckFolder(const std::string& folder) {
    Require(folder.size() <= 255, "a folder has at most 255 bytes");
    Require(folder.find('\0') == std::string::npos, "a folder holds no zero byte");
    Require(Trim(folder) == folder, "a folder is trimmed");
}

void CheckRoundTrip(std::span<const unsigned char> bytes, const SolveParameters& parameters) {
    CheckFolder(parameters.LastOpenFolder);
    CheckFolder(parameters.LastSaveFolder);
    const auto encoded = EncodeSettings(parameters);
    Require(std::equal(encoded.begin(), encoded.begin() + numberBytes, bytes.begin()),
            "numbers keep their bits");
    SolveParameters again;
    Require(DecodeSettings(encoded, again) == SettingsRead::Good, "what is written can be read");
    Require(again.LastOpenFolder == parameters.LastOpenFolder &&
                again.LastSaveFolder == parameters.LastSaveFolder,
            "folders survive");
    Require(EncodeSettings(again) == encoded, "encoding again changes nothing");
}

/// The inputs that start-up fills in must be ones that the next start can read.
void CheckStart(bool good) {
    ProgramState state;
    RecordingPort port(state);
    InitSettings(state, port);
    Require(state.HaveConfig == good, "start-up and decoder agree");
    for (const std::string& size : {state.Inputs.SizeX, state.Inputs.SizeY}) {
        Require(ParseNumber(size).has_value() || size.find("INF") != std::string::npos,
                "a size is shown as a number");
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    static const std::filesystem::path file = InputFolder() / "Vestrel.ini";
    static const bool found = setenv("VESTREL_SETTINGS", file.c_str(), 1) == 0;
    Require(found, "the environment takes the file's name");
    SolveParameters parameters;
    parameters.LastOpenFolder = "before";
    const SettingsRead result = DecodeSettings({data, size}, parameters);
    if (result == SettingsRead::Good) {
        CheckRoundTrip({data, size}, parameters);
    } else {
        Require(parameters.LastOpenFolder == "before", "only a good file changes anything");
        Require((result == SettingsRead::Absent) == (size < 5), "short files count as none");
    }
    WriteFile(file, TextOf(data, size));
    CheckStart(result == SettingsRead::Good);
    return 0;
}
