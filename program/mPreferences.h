// What the windows remember between runs in addition to the settings: window positions, theme,
// addresses. They are in a text file of "name=value" lines, so that the settings file keeps the
// form that other programs know.
#pragma once

#include <filesystem>
#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// Reads the preferences: at most 100 single lines of at most 4096 bytes, whatever the file holds.
void LoadPreferences(ProgramState& state);

/// Writes them, whole or not at all.
bool SavePreferences(const ProgramState& state);

/// A preference; empty when there is none.
std::string PreferenceOf(const ProgramState& state, const std::string& name);

/// The folder of the catalog: the one that was chosen in the settings, else `usual`.
std::filesystem::path CatalogFolderOf(const ProgramState& state,
                                      const std::filesystem::path& usual);

/// Sets a preference. A value that is empty or not a single line removes it.
void SetPreference(ProgramState& state, const std::string& name, const std::string& value);

}  // namespace vestrel
