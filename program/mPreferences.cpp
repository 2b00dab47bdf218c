#include "program/mPreferences.h"

#include <algorithm>
#include <filesystem>
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

}  // namespace

std::string PreferenceOf(const ProgramState& state, const std::string& name) {
    const auto found = state.Preferences.find(name);
    return found == state.Preferences.end() ? std::string() : found->second;
}

void SetPreference(ProgramState& state, const std::string& name, const std::string& value) {
    const bool fits = state.Preferences.size() < mostPreferences || state.Preferences.count(name);
    if (value.empty() || !IsLine(value) || !IsLine(name) || !fits) {
        state.Preferences.erase(name);
    } else {
        state.Preferences[name] = value;
    }
}

void LoadPreferences(ProgramState& state) {
    constexpr std::size_t longestFile = 1 << 20;  // more than is ever written
    state.Preferences.clear();
    std::vector<unsigned char> bytes;
    if (!ReadWholeFile(PreferencesFile(), longestFile, bytes)) return;
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::size_t sign = line.find('=');
        if (sign == std::string_view::npos || sign == 0) continue;
        SetPreference(state, std::string(line.substr(0, sign)), std::string(line.substr(sign + 1)));
    }
}

bool SavePreferences(const ProgramState& state) {
    std::string text;
    for (const auto& [name, value] : state.Preferences) {
        text.append(name).append("=").append(value).append("\n");
    }
    const std::filesystem::path file = PreferencesFile();
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    return ReplaceFile(file, text);
}

}  // namespace vestrel
