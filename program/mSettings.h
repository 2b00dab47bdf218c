// Transfers the settings between the program state and their file.
#pragma once

#include "program/mGeneral.h"

namespace vestrel {

/// Reads the settings file. An outdated one gives a message, a missing one is created empty. Sets
/// `HaveConfig`.
void LoadSettings(ProgramState& state, Port& port);

/// Stores the defaults into every parameter; both folders become the program's own.
void SetDefaultSettings(ProgramState& state);

/// Takes field size and unit from the inputs and writes the settings file, whole or not at all.
/// A size that is not a number leaves its field as it was.
/// @return false when the file could not be written
bool SaveSettings(ProgramState& state);

/// Start-up: clears the run flags, loads the settings or their defaults, fills the size inputs.
void InitSettings(ProgramState& state, Port& port);

}  // namespace vestrel
