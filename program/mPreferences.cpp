#include "program/mPreferences.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

constexpr std::size_t mostPreferences = 100;
constexpr std::size_t longestValue = 4096;

std::filesystem::path PreferencesFile() {
    return RecentImagesFilePath().parent_path() / "preferences";
}

bool IsLine(std::string_view text) {
    return text.size() <= longestValue && std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < 32;
           });
}

using PreferenceMap = std::map<std::string, std::string>;

void Set(PreferenceMap& preferences, const std::string& name, const std::string& value) {
    const bool fits = preferences.size() < mostPreferences || preferences.contains(name);
    if (value.empty() || !IsLine(value) || !IsLine(name) || !fits) {
        preferences.erase(name);
    } else {
        preferences[name] = value;
    }
}

PreferenceMap ReadPreferences() {
    constexpr std::size_t longestFile = 1 << 20;  // more than is ever written
    PreferenceMap preferences;
    std::vector<unsigned char> bytes;
    if (!ReadWholeFile(PreferencesFile(), longestFile, bytes)) return preferences;
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::size_t sign = line.find('=');
        if (sign == std::string_view::npos || sign == 0) continue;
        Set(preferences, std::string(line.substr(0, sign)), std::string(line.substr(sign + 1)));
    }
    return preferences;
}

}  // namespace

std::string PreferenceOf(const ProgramState& state, const std::string& name) {
    const auto found = state.Preferences.find(name);
    return found == state.Preferences.end() ? std::string() : found->second;
}

std::filesystem::path CatalogFolderOf(const ProgramState& state,
                                      const std::filesystem::path& usual) {
    const std::string chosen = PreferenceOf(state, "catalog");
    return chosen.empty() ? usual : PathFromText(chosen);
}

void SetPreference(ProgramState& state, const std::string& name, const std::string& value) {
    Set(state.Preferences, name, value);
}

void LoadPreferences(ProgramState& state) {
    state.Preferences = ReadPreferences();
    state.LoadedPreferences = state.Preferences;
}

bool SavePreferences(const ProgramState& state) {
    // Another window may have saved meanwhile: only what was changed here is changed in the file.
    PreferenceMap preferences = ReadPreferences();
    for (const auto& [name, value] : state.LoadedPreferences) {
        if (!state.Preferences.contains(name)) preferences.erase(name);
    }
    for (const auto& [name, value] : state.Preferences) {
        const auto loaded = state.LoadedPreferences.find(name);
        const bool same = loaded != state.LoadedPreferences.end() && loaded->second == value;
        if (!same) Set(preferences, name, value);
    }
    std::string text;
    for (const auto& [name, value] : preferences) {
        text.append(name).append("=").append(value).append("\n");
    }
    const std::filesystem::path file = PreferencesFile();
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    return ReplaceFile(file, text);
}

}  // namespace vestrel
