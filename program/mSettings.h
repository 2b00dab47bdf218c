// Transfers the settings between the program state and their file.
#pragma once

#include "program/mGeneral.h"

namespace vestrel {

/// What is said of an outdated settings file by programs that write a new one at their end, and by
/// those that do not.
inline constexpr const char* SettingsRenewed =
    "The parameter file Vestrel.ini is out of date.  This program is creating a new one.";
inline constexpr const char* SettingsNotUsed =
    "The parameter file Vestrel.ini is out of date.  The defaults are used.";

/// Reads the settings file. An outdated one gives the message, a missing one is created empty. Sets
/// `HaveConfig`.
void LoadSettings(ProgramState& state, Port& port, const char* outOfDate = SettingsRenewed);

/// Stores the defaults into every parameter; both folders become the program's own.
void SetDefaultSettings(ProgramState& state);

/// Takes field size and unit from the inputs and writes the settings file, whole or not at all.
/// A size that is not a number leaves its field as it was.
/// @return false when the file could not be written
bool SaveSettings(ProgramState& state);

/// Start-up: clears the run flags, loads the settings or their defaults, fills the size inputs.
void InitSettings(ProgramState& state, Port& port, const char* outOfDate = SettingsRenewed);

}  // namespace vestrel
