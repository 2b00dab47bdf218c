// What the windows remember between runs beside the settings: places, theme, addresses. A text file
// of "name=value" lines, so that the settings file stays as other programs know it.
#pragma once

#include <string>

#include "program/mGeneral.h"

namespace vestrel {

/// Reads the preferences. Whatever the file holds, there are few of them and each is one line.
void LoadPreferences(ProgramState& state);

/// Writes them, whole or not at all.
bool SavePreferences(const ProgramState& state);

/// A preference; empty when there is none.
std::string PreferenceOf(const ProgramState& state, const std::string& name);

/// Keeps a preference; an empty value removes it, and what is no single line.
void SetPreference(ProgramState& state, const std::string& name, const std::string& value);

}  // namespace vestrel
